# The plug-in database reader of host/.
vx_fuzz(fuzz_host host_fuzz.cpp)
