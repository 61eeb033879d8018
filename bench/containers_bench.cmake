# Block zones against malloc and boost::pool; lookup tables and maps against std::set/std::map
# and Abseil's containers. The peers come from Debian (libboost-dev, libabsl-dev) and are
# skipped when absent: install them with `sudo apt-get install libboost-dev libabsl-dev`.
vx_bench(containers_bench containers_bench.cpp)
find_package(absl QUIET)
if(absl_FOUND)
  target_link_libraries(containers_bench PRIVATE absl::btree absl::flat_hash_map absl::flat_hash_set absl::hash)
  target_compile_definitions(containers_bench PRIVATE VX_BENCH_HAVE_ABSL=1)
endif()
find_package(Boost QUIET)
if(Boost_FOUND)
  target_link_libraries(containers_bench PRIVATE Boost::headers)
  target_compile_definitions(containers_bench PRIVATE VX_BENCH_HAVE_BOOST=1)
endif()
