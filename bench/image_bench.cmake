# Image operations against OpenCV when its imgproc development files are installed
# (Debian: libopencv-imgproc-dev); without them the benchmark measures vxtools3 alone.
vx_bench(image_bench image_bench.cpp)
find_path(VX_OPENCV_INCLUDE opencv2/imgproc.hpp PATH_SUFFIXES opencv4)
find_library(VX_OPENCV_CORE opencv_core)
find_library(VX_OPENCV_IMGPROC opencv_imgproc)
if(VX_OPENCV_INCLUDE AND VX_OPENCV_CORE AND VX_OPENCV_IMGPROC)
  target_include_directories(image_bench SYSTEM PRIVATE ${VX_OPENCV_INCLUDE})
  target_link_libraries(image_bench PRIVATE ${VX_OPENCV_IMGPROC} ${VX_OPENCV_CORE})
  target_compile_definitions(image_bench PRIVATE VX_BENCH_OPENCV=1)
else()
  message(STATUS "OpenCV imgproc not found: image_bench runs without its peer")
endif()
