# The configuration file reader (ConfigImport).
vx_fuzz(fuzz_config config_fuzz.cpp)
