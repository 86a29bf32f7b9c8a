# SPDX-License-Identifier: Apache-2.0
# Imported targets for the platform libraries the library is written against.
#
# Debian ships liblog, libbase and BoringSSL under /usr/include/android and
# /usr/lib/<triplet>/android. Their include root also holds BoringSSL's openssl/ folder, which
# must not shadow the system OpenSSL in an OpenSSL build, so each header family is exposed
# through its own folder of links in the build tree.

set(TAVIKM_ANDROID_INCLUDE /usr/include/android)
if(CMAKE_LIBRARY_ARCHITECTURE)
  set(TAVIKM_TRIPLET ${CMAKE_LIBRARY_ARCHITECTURE})
else()
  set(TAVIKM_TRIPLET ${CMAKE_SYSTEM_PROCESSOR}-linux-gnu)
endif()
set(TAVIKM_ANDROID_LIBDIR /usr/lib/${TAVIKM_TRIPLET}/android)

function(tavikm_link_headers dir)
  file(MAKE_DIRECTORY ${dir})
  foreach(name IN LISTS ARGN)
    if(NOT EXISTS ${TAVIKM_ANDROID_INCLUDE}/${name})
      message(FATAL_ERROR "${TAVIKM_ANDROID_INCLUDE}/${name} is missing: run scripts/install-deps")
    endif()
    file(CREATE_LINK ${TAVIKM_ANDROID_INCLUDE}/${name} ${dir}/${name} SYMBOLIC)
  endforeach()
endfunction()

# Finds a runtime library by its full path: the cross build links arm64 runtime packages,
# which carry only the versioned name.
function(tavikm_find_android_lib var name)
  foreach(candidate ${TAVIKM_ANDROID_LIBDIR}/lib${name}.so ${TAVIKM_ANDROID_LIBDIR}/lib${name}.so.0)
    if(EXISTS ${candidate})
      set(${var} ${candidate} PARENT_SCOPE)
      return()
    endif()
  endforeach()
  message(FATAL_ERROR "lib${name} not found in ${TAVIKM_ANDROID_LIBDIR}: run scripts/install-deps")
endfunction()

set(TAVIKM_LOG_HEADERS ${CMAKE_BINARY_DIR}/android-headers/log)
tavikm_link_headers(${TAVIKM_LOG_HEADERS} android log android-base)

tavikm_find_android_lib(TAVIKM_LIBLOG log)
add_library(tavikm::log SHARED IMPORTED GLOBAL)
set_target_properties(tavikm::log PROPERTIES
  IMPORTED_LOCATION ${TAVIKM_LIBLOG}
  INTERFACE_SYSTEM_INCLUDE_DIRECTORIES ${TAVIKM_LOG_HEADERS}
  INTERFACE_INCLUDE_DIRECTORIES ${TAVIKM_LOG_HEADERS})

tavikm_find_android_lib(TAVIKM_LIBBASE base)
add_library(tavikm::base SHARED IMPORTED GLOBAL)
set_target_properties(tavikm::base PROPERTIES
  IMPORTED_LOCATION ${TAVIKM_LIBBASE}
  INTERFACE_SYSTEM_INCLUDE_DIRECTORIES ${TAVIKM_LOG_HEADERS}
  INTERFACE_INCLUDE_DIRECTORIES ${TAVIKM_LOG_HEADERS}
  INTERFACE_LINK_LIBRARIES tavikm::log)

if(TAVIKM_CRYPTO STREQUAL "boringssl")
  set(TAVIKM_CRYPTO_HEADERS ${CMAKE_BINARY_DIR}/android-headers/crypto)
  tavikm_link_headers(${TAVIKM_CRYPTO_HEADERS} openssl)
  tavikm_find_android_lib(TAVIKM_LIBCRYPTO crypto)
  add_library(tavikm::crypto SHARED IMPORTED GLOBAL)
  set_target_properties(tavikm::crypto PROPERTIES
    IMPORTED_LOCATION ${TAVIKM_LIBCRYPTO}
    INTERFACE_SYSTEM_INCLUDE_DIRECTORIES ${TAVIKM_CRYPTO_HEADERS}
    INTERFACE_INCLUDE_DIRECTORIES ${TAVIKM_CRYPTO_HEADERS}
    INTERFACE_COMPILE_DEFINITIONS TAVIKM_CRYPTO_BORINGSSL=1)
elseif(TAVIKM_CRYPTO STREQUAL "openssl")
  find_package(OpenSSL 3 REQUIRED COMPONENTS Crypto)
  add_library(tavikm::crypto INTERFACE IMPORTED GLOBAL)
  set_target_properties(tavikm::crypto PROPERTIES
    INTERFACE_LINK_LIBRARIES OpenSSL::Crypto
    INTERFACE_COMPILE_DEFINITIONS TAVIKM_CRYPTO_OPENSSL=1)
else()
  message(FATAL_ERROR "TAVIKM_CRYPTO must be boringssl or openssl, not '${TAVIKM_CRYPTO}'")
endif()
