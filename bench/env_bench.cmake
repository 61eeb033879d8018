# Envelope evaluation against a plain double-precision Hermite loop over a key array.
vx_bench(env_bench env_bench.cpp)
