# find_package(qel-client): the target qel::client.
include(CMakeFindDependencyMacro)
find_dependency(Threads)
find_dependency(Protobuf)
find_dependency(gRPC CONFIG)
include("${CMAKE_CURRENT_LIST_DIR}/qel-client-targets.cmake")
