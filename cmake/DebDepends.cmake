# Included by cpack (CPACK_PROJECT_CONFIG_FILE, written by Packaging.cmake):
# sets CPACK_DEBIAN_<COMPONENT>_PACKAGE_DEPENDS from dpkg-shlibdeps run on
# each component's built binaries, plus that component's fixed dependencies.
#
# Cross build (BINO_DEB_ROOT set): dpkg-shlibdeps reads the arm64 root's
# dpkg database (scripts/aarch64-root.sh writes one). It looks libraries up in
# the root's directories and asks dpkg-query which package owns the path it
# found, so it is given a copy of that database whose file lists carry the
# root's prefix.
if(NOT CPACK_GENERATOR STREQUAL "DEB")
  return()
endif()

file(REMOVE_RECURSE "${BINO_DEB_WORK}")
file(MAKE_DIRECTORY "${BINO_DEB_WORK}/debian")
# dpkg-shlibdeps wants a source package's control file to exist.
file(WRITE "${BINO_DEB_WORK}/debian/control"
  "Source: binocular\n\nPackage: binocular\nArchitecture: any\n")

set(_bino_env "")
set(_bino_libdir_args "")
foreach(dir IN LISTS BINO_DEB_LIBDIRS)
  list(APPEND _bino_libdir_args "-l${dir}")
endforeach()
if(BINO_DEB_ROOT)
  set(_bino_db "${BINO_DEB_ROOT}/var/lib/dpkg")
  if(NOT EXISTS "${_bino_db}/status")
    message(FATAL_ERROR "${_bino_db}/status is missing: make the root with scripts/aarch64-root.sh")
  endif()
  set(_bino_admin "${BINO_DEB_WORK}/admindir")
  execute_process(
    COMMAND sh -c "set -e
      mkdir -p \"$2/info\" \"$2/updates\"
      cp \"$1/var/lib/dpkg/status\" \"$2/status\"
      : >\"$2/available\"
      for f in \"$1\"/var/lib/dpkg/info/*; do
        case \"$f\" in
          *.list) sed \"s|^/|$1/|\" \"$f\" >\"$2/info/\${f##*/}\" ;;
          *) cp \"$f\" \"$2/info/\" ;;
        esac
      done" sh "${BINO_DEB_ROOT}" "${_bino_admin}"
    RESULT_VARIABLE _bino_rc)
  if(NOT _bino_rc EQUAL 0)
    message(FATAL_ERROR "could not copy the root's dpkg database")
  endif()
  set(_bino_env DPKG_ADMINDIR=${_bino_admin} DEB_HOST_ARCH=${BINO_DEB_ARCH})
  list(APPEND _bino_libdir_args
    "-l${BINO_DEB_ROOT}/lib/aarch64-linux-gnu" "-l${BINO_DEB_ROOT}/usr/lib/aarch64-linux-gnu")
endif()

foreach(component IN LISTS BINO_DEB_COMPONENTS)
  set(_bino_file_args "")
  foreach(file IN LISTS BINO_DEB_FILES_${component})
    list(APPEND _bino_file_args "-e${file}")
  endforeach()
  # libdpu.so is found in the build tree and belongs to no installed package:
  # its dependency is the virtual package, added below.
  execute_process(
    COMMAND ${CMAKE_COMMAND} -E env ${_bino_env}
      dpkg-shlibdeps -O --ignore-missing-info ${_bino_libdir_args} ${_bino_file_args}
    WORKING_DIRECTORY "${BINO_DEB_WORK}"
    OUTPUT_VARIABLE _bino_out ERROR_VARIABLE _bino_err RESULT_VARIABLE _bino_rc)
  if(NOT _bino_rc EQUAL 0)
    message(FATAL_ERROR "dpkg-shlibdeps failed for ${component}:\n${_bino_err}")
  endif()
  string(REGEX MATCH "shlibs:Depends=[^\n]*" _bino_deps "${_bino_out}")
  string(REPLACE "shlibs:Depends=" "" _bino_deps "${_bino_deps}")
  # Every binary links the C library: no libc6 means the lookup went wrong
  # (which --ignore-missing-info would otherwise hide).
  if(NOT _bino_deps MATCHES "(^|, )libc6 ")
    message(FATAL_ERROR "dpkg-shlibdeps found no C library for ${component}:\n${_bino_out}${_bino_err}")
  endif()
  set(_bino_all "${_bino_deps}")
  foreach(extra IN LISTS BINO_DEB_EXTRA_${component})
    if(_bino_all)
      string(APPEND _bino_all ", ")
    endif()
    string(APPEND _bino_all "${extra}")
  endforeach()
  string(TOUPPER "${component}" _bino_upper)
  set(CPACK_DEBIAN_${_bino_upper}_PACKAGE_DEPENDS "${_bino_all}")
  message(STATUS "${component}: Depends: ${_bino_all}")
endforeach()
