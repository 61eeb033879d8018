vx_bench(threads_bench threads_bench.cpp)
