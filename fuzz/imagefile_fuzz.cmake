# Image files: the ILBM loader alone (fuzz_ilbm), and the load call over every loader module
# (fuzz_imagefile). Both scan the image modules of imagefile/Plugins into a host of their own.
foreach(target fuzz_ilbm fuzz_imagefile)
  vx_fuzz(${target} imagefile_fuzz.cpp)
  add_dependencies(${target} vx_image_modules)
  target_compile_definitions(${target} PRIVATE VX_IMAGE_MODULE_DIR="${VX_IMAGE_MODULE_DIR}")
endforeach()
target_compile_definitions(fuzz_ilbm PRIVATE VX_FUZZ_ONE_LOADER="IFF-ILBM")
