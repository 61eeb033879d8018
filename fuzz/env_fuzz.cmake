# Envelope loading from binary ("ENVL" chunks in a FORM) and text load states.
vx_fuzz(fuzz_env env_fuzz.cpp)
