vx_bench(io_bench io_bench.cpp)
