# find_package(scheduler-client): the target scheduler::client.
include(CMakeFindDependencyMacro)
find_dependency(PkgConfig)
if(NOT TARGET PkgConfig::SYSTEMD)
    pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
endif()
include("${CMAKE_CURRENT_LIST_DIR}/scheduler-client-targets.cmake")
