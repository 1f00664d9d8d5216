# Finds the zlog logging library (header zlog.h, library libzlog).
# Defines Zlog_FOUND and the imported target Zlog::zlog.
find_path(Zlog_INCLUDE_DIR NAMES zlog.h)
find_library(Zlog_LIBRARY NAMES zlog)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Zlog DEFAULT_MSG Zlog_LIBRARY Zlog_INCLUDE_DIR)
if(Zlog_FOUND AND NOT TARGET Zlog::zlog)
  add_library(Zlog::zlog UNKNOWN IMPORTED)
  set_target_properties(Zlog::zlog PROPERTIES
    IMPORTED_LOCATION "${Zlog_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${Zlog_INCLUDE_DIR}")
endif()
mark_as_advanced(Zlog_INCLUDE_DIR Zlog_LIBRARY)
