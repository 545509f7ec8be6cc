# Defines the target static_grpc (gRPC without TLS, protobuf and abseil as archives, for a program
# that links them statically) and STATIC_GRPC_REFLECTION, the archive of gRPC's schema reflection.
# c-ares and zlib stay shared libraries.
find_package(PkgConfig REQUIRED)
pkg_check_modules(GRPC_UNSECURE REQUIRED grpc++_unsecure protobuf)

set(archives "")
list(FILTER GRPC_UNSECURE_LIBRARIES INCLUDE REGEX "^(grpc|gpr$|absl_|protobuf)")
list(REMOVE_DUPLICATES GRPC_UNSECURE_LIBRARIES)
foreach(name IN LISTS GRPC_UNSECURE_LIBRARIES ITEMS address_sorting upb grpc++_reflection)
  find_library(STATIC_${name} lib${name}.a REQUIRED)
  mark_as_advanced(STATIC_${name})
  list(APPEND archives ${STATIC_${name}})
endforeach()
list(POP_BACK archives STATIC_GRPC_REFLECTION)
list(JOIN archives "," archives)

add_library(static_grpc INTERFACE)
target_link_libraries(static_grpc INTERFACE
  "$<LINK_GROUP:RESCAN,${archives}>" cares z Threads::Threads ${CMAKE_DL_LIBS})
