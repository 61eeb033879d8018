# The plug-in host: activation of a loaded module server, lookup among 10,000 servers, and the
# database written and read with 10,000 entries, and a scan of 200 modules in the module
# scanner against loading them in process.
vx_bench(host_bench host_bench.cpp)
add_dependencies(host_bench vx_plugins vxmodscan)
target_compile_definitions(host_bench PRIVATE VX_PLUGIN_DIR="${CMAKE_BINARY_DIR}/examples/plugins"
  VX_MODSCAN="$<TARGET_FILE:vxmodscan>")
