# The asset hub's record reader, as the daemon and the client read their sockets.
vx_fuzz(fuzz_hub hub_fuzz.cpp)
