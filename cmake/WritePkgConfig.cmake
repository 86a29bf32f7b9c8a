# SPDX-License-Identifier: Apache-2.0
# Runs at install time (Install.cmake): writes the pkg-config files for the prefix being
# installed to. DESTDIR is not part of it: a staged install names its final place.
set(prefix ${CMAKE_INSTALL_PREFIX})
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${TAVIKM_PC_${dir}}")
    set(TAVIKM_PC_${dir}_VALUE "${TAVIKM_PC_${dir}}")
  else()
    set(TAVIKM_PC_${dir}_VALUE "\${prefix}/${TAVIKM_PC_${dir}}")
  endif()
endforeach()
foreach(pc libtavikm libtavikm-host)
  configure_file(${TAVIKM_PC_TEMPLATES}/${pc}.pc.in ${TAVIKM_PC_OUT}/${pc}.pc @ONLY)
endforeach()
