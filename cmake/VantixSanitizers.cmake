# VANTIX_SANITIZE=address builds everything with AddressSanitizer and
# UndefinedBehaviorSanitizer (any UB report fails the run);
# VANTIX_SANITIZE=thread builds with ThreadSanitizer.
if(VANTIX_SANITIZE STREQUAL "address")
  set(_vantix_san -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
elseif(VANTIX_SANITIZE STREQUAL "thread")
  set(_vantix_san -fsanitize=thread -fno-omit-frame-pointer)
elseif(NOT VANTIX_SANITIZE STREQUAL "")
  message(FATAL_ERROR "VANTIX_SANITIZE must be empty, 'address' or 'thread'")
endif()
if(_vantix_san)
  add_compile_options(${_vantix_san} -g)
  add_link_options(${_vantix_san})
  message(STATUS "Sanitizers: ${_vantix_san}")
endif()
