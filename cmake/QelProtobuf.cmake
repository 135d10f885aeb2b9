# qel_protobuf(<target> PROTO <file> ROOT <dir> [GRPC])
#
# An object library of the code generated from <file>. Headers are included by the file's path below <dir>. Generated
# code is compiled without our warnings, but hardened.
function(qel_protobuf target)
  cmake_parse_arguments(ARG "GRPC" "PROTO;ROOT" "" ${ARGN})
  file(RELATIVE_PATH relative "${ARG_ROOT}" "${ARG_PROTO}")
  string(REGEX REPLACE "\\.proto$" "" stem "${relative}")
  set(out "${CMAKE_CURRENT_BINARY_DIR}/generated")
  file(MAKE_DIRECTORY "${out}")

  set(outputs "${out}/${stem}.pb.cc" "${out}/${stem}.pb.h")
  set(arguments --cpp_out=${out})
  if(ARG_GRPC)
    find_program(QEL_GRPC_CPP_PLUGIN grpc_cpp_plugin REQUIRED)
    list(APPEND outputs "${out}/${stem}.grpc.pb.cc" "${out}/${stem}.grpc.pb.h")
    list(APPEND arguments --grpc_out=${out} --plugin=protoc-gen-grpc=${QEL_GRPC_CPP_PLUGIN})
  endif()
  add_custom_command(
    OUTPUT ${outputs}
    COMMAND protobuf::protoc ${arguments} -I "${ARG_ROOT}" "${ARG_PROTO}"
    DEPENDS "${ARG_PROTO}"
    COMMENT "Generating code from ${relative}"
    VERBATIM)

  add_library(${target} OBJECT ${outputs})
  target_include_directories(${target} SYSTEM PUBLIC "${out}")
  target_link_libraries(${target} PUBLIC protobuf::libprotobuf PRIVATE qel_hardening)
  if(QEL_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${QEL_SANITIZE})
  endif()
endfunction()
