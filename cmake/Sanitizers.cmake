# BINOCULAR_SANITIZE selects one sanitizer set for every target of the tree:
#   address -> AddressSanitizer + UndefinedBehaviorSanitizer
#   thread  -> ThreadSanitizer
set(BINOCULAR_SANITIZE "" CACHE STRING "Sanitizer set: empty, address or thread")
set_property(CACHE BINOCULAR_SANITIZE PROPERTY STRINGS "" address thread)

if(BINOCULAR_SANITIZE STREQUAL "address")
  set(_bino_san_flags -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
elseif(BINOCULAR_SANITIZE STREQUAL "thread")
  set(_bino_san_flags -fsanitize=thread -fno-omit-frame-pointer)
elseif(NOT BINOCULAR_SANITIZE STREQUAL "")
  message(FATAL_ERROR "BINOCULAR_SANITIZE must be empty, 'address' or 'thread'")
endif()

if(_bino_san_flags)
  add_compile_options(${_bino_san_flags})
  add_link_options(${_bino_san_flags})
  message(STATUS "Sanitizers: ${BINOCULAR_SANITIZE}")
endif()
