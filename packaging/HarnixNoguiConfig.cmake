include(CMakeFindDependencyMacro)
find_dependency(Qt6 6.4 COMPONENTS Core Sql)
include(${CMAKE_CURRENT_LIST_DIR}/HarnixNoguiTargets.cmake)
