# Image files through the loader and saver modules against calling libpng and libjpeg directly.
find_package(PNG REQUIRED)
find_package(JPEG REQUIRED)
vx_bench(imagefile_bench imagefile_bench.cpp)
add_dependencies(imagefile_bench vx_image_modules)
target_link_libraries(imagefile_bench PRIVATE PNG::PNG JPEG::JPEG)
target_compile_definitions(imagefile_bench PRIVATE VX_IMAGE_MODULE_DIR="${VX_IMAGE_MODULE_DIR}")
