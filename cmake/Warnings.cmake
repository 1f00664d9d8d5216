# bino_project_options(<target>): warnings, visibility and the source-path mapping
# that every target built from this tree shares. __FILE__ then reads
# "src/<file>.cpp", which is what the log lines carry.
function(bino_project_options target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow
    -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
  set_target_properties(${target} PROPERTIES
    CXX_VISIBILITY_PRESET hidden
    C_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
endfunction()

# bino_shared_library_options(<target>): a shared library must resolve every
# symbol at link time. Sanitizer runtimes are only present in the final
# executable, so the check is skipped in sanitizer builds.
function(bino_shared_library_options target)
  if(NOT BINOCULAR_SANITIZE)
    target_link_options(${target} PRIVATE -Wl,--no-undefined)
  endif()
endfunction()
