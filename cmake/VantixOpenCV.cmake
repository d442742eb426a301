# Finds the OpenCV 4 modules the project uses and exposes them as two
# interface targets: vantix_opencv (core, imgproc, features2d: the library)
# and vantix_opencv_io (imgcodecs: tools and tests only).
#
# Debian ships the CMake package only with the full libopencv-dev; the
# per-module -dev packages are enough for this project, so fall back to
# locating headers and libraries directly.
find_package(OpenCV 4 QUIET COMPONENTS core imgproc features2d imgcodecs)

add_library(vantix_opencv INTERFACE)
add_library(vantix_opencv_io INTERFACE)

if(OpenCV_FOUND)
  target_include_directories(vantix_opencv SYSTEM INTERFACE ${OpenCV_INCLUDE_DIRS})
  target_link_libraries(vantix_opencv INTERFACE opencv_core opencv_imgproc opencv_features2d)
  target_link_libraries(vantix_opencv_io INTERFACE vantix_opencv opencv_imgcodecs)
  message(STATUS "OpenCV ${OpenCV_VERSION} (CMake package)")
else()
  find_path(VANTIX_OPENCV_INCLUDE opencv2/core.hpp PATH_SUFFIXES opencv4 REQUIRED)
  foreach(module core imgproc features2d imgcodecs)
    find_library(VANTIX_OPENCV_${module} opencv_${module} REQUIRED)
  endforeach()
  target_include_directories(vantix_opencv SYSTEM INTERFACE ${VANTIX_OPENCV_INCLUDE})
  target_link_libraries(vantix_opencv INTERFACE
    ${VANTIX_OPENCV_features2d} ${VANTIX_OPENCV_imgproc} ${VANTIX_OPENCV_core})
  target_link_libraries(vantix_opencv_io INTERFACE vantix_opencv ${VANTIX_OPENCV_imgcodecs})
  message(STATUS "OpenCV modules at ${VANTIX_OPENCV_INCLUDE}")
endif()
