# The plug-in database reader of host/.
vx_fuzz(fuzz_host host_fuzz.cpp)
# The module scanner's reply as the host reads it from the pipe.
vx_fuzz(fuzz_scanreply scanreply_fuzz.cpp)
