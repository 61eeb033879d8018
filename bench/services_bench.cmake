vx_bench(services_bench services_bench.cpp)
