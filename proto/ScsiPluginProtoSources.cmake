# scsi_plugin_proto_sources(<target> <schema directory>)
# Has the code of the schema generated, in the directory in which the target is declared, and makes it
# a part of the target. Needs the compilers of protobuf and gRPC found; the target links the libraries
# itself.
function(scsi_plugin_proto_sources target schema_dir)
  set(schema error.proto lun_cmd.proto plugin_cmd.proto plugin_service.proto)
  set(grpc_schema plugin_service.proto)
  list(TRANSFORM schema PREPEND ${schema_dir}/ OUTPUT_VARIABLE schema_files)
  foreach(file IN LISTS schema)
    cmake_path(GET file STEM stem)
    set(outputs ${stem}.pb.cc ${stem}.pb.h)
    set(grpc_options "")
    if(file IN_LIST grpc_schema)
      list(APPEND outputs ${stem}.grpc.pb.cc ${stem}.grpc.pb.h)
      set(grpc_options --grpc_out=${CMAKE_CURRENT_BINARY_DIR}
                       --plugin=protoc-gen-grpc=$<TARGET_FILE:gRPC::grpc_cpp_plugin>)
    endif()
    list(TRANSFORM outputs PREPEND ${CMAKE_CURRENT_BINARY_DIR}/)
    add_custom_command(
      OUTPUT ${outputs}
      COMMAND protobuf::protoc --proto_path=${schema_dir} --cpp_out=${CMAKE_CURRENT_BINARY_DIR}
              ${grpc_options} ${file}
      DEPENDS ${schema_files}
      COMMENT "Generating code from ${file}"
      VERBATIM)
    target_sources(${target} PRIVATE ${outputs})
  endforeach()
  target_compile_features(${target} PUBLIC cxx_std_17)
  target_include_directories(${target} SYSTEM PUBLIC ${CMAKE_CURRENT_BINARY_DIR})
endfunction()
