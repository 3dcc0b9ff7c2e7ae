# The library's dependencies as Debian ships them: Boost and jsoncpp through
# their CMake configs, hiredis and libmemcached through pkg-config (their
# Debian packages carry no usable CMake targets). Used by the build and by
# the installed package alike.
include(CMakeFindDependencyMacro)
find_dependency(Boost 1.57 CONFIG COMPONENTS filesystem system)
find_dependency(jsoncpp CONFIG)
find_dependency(PkgConfig)
if(NOT TARGET PkgConfig::VELMORA_HIREDIS)
  pkg_check_modules(VELMORA_HIREDIS REQUIRED IMPORTED_TARGET GLOBAL hiredis)
endif()
if(NOT TARGET PkgConfig::VELMORA_MEMCACHED)
  pkg_check_modules(VELMORA_MEMCACHED REQUIRED IMPORTED_TARGET GLOBAL libmemcached)
endif()
