# Android's platform libraries as Debian packages them: headers under /usr/include/android,
# libraries under /usr/lib/<triplet>/android, no pkg-config.
set(ANDROID_INCLUDE_DIR /usr/include/android)
if(NOT EXISTS ${ANDROID_INCLUDE_DIR}/utils/RefBase.h)
  message(FATAL_ERROR "Android platform headers not found in ${ANDROID_INCLUDE_DIR}; run scripts/deps.sh")
endif()
set(ANDROID_LIB_DIR /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android)

foreach(lib utils log base cutils)
  find_library(ANDROID_${lib}_LIBRARY NAMES ${lib} PATHS ${ANDROID_LIB_DIR} NO_DEFAULT_PATH REQUIRED)
  add_library(android::${lib} SHARED IMPORTED)
  set_target_properties(android::${lib} PROPERTIES
    IMPORTED_LOCATION ${ANDROID_${lib}_LIBRARY}
    INTERFACE_SYSTEM_INCLUDE_DIRECTORIES ${ANDROID_INCLUDE_DIR}
    INTERFACE_INCLUDE_DIRECTORIES ${ANDROID_INCLUDE_DIR})
endforeach()
# The libraries live outside the loader's default path.
set(CMAKE_BUILD_RPATH ${ANDROID_LIB_DIR})
set(CMAKE_INSTALL_RPATH ${ANDROID_LIB_DIR})
