vx_bench(config_bench config_bench.cpp)
