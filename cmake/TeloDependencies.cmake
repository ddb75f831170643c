# Finds every third-party dependency with CMake's own mechanisms and names the Debian package
# to install when one is missing (scripts/install-deps installs them all).

find_package(PkgConfig QUIET)

macro(telo_require found package what)
  if(NOT ${found})
    message(FATAL_ERROR "${what} not found: install the Debian package '${package}' "
                        "(or run scripts/install-deps)")
  endif()
endmacro()

find_package(jsoncpp CONFIG QUIET)
telo_require(jsoncpp_FOUND libjsoncpp-dev "jsoncpp")

find_package(Boost 1.67 QUIET)
telo_require(Boost_FOUND libboost-dev "Boost string algorithms")

if(PkgConfig_FOUND)
  pkg_check_modules(SODIUM QUIET IMPORTED_TARGET libsodium)
endif()
telo_require(SODIUM_FOUND libsodium-dev "libsodium")

if(PkgConfig_FOUND)
  pkg_check_modules(MOUNT QUIET IMPORTED_TARGET mount)
endif()
telo_require(MOUNT_FOUND libmount-dev "libmount")

if(TELO_BUILD_TESTS)
  find_package(GTest CONFIG QUIET)
  telo_require(GTest_FOUND libgtest-dev "GoogleTest")
endif()
if(TELO_BUILD_BENCHMARKS)
  find_package(benchmark CONFIG QUIET)
  telo_require(benchmark_FOUND libbenchmark-dev "Google Benchmark")
  # The baseline INI parser of the section config benchmark.
  if(PkgConfig_FOUND)
    pkg_check_modules(INIH QUIET IMPORTED_TARGET inih)
  endif()
  telo_require(INIH_FOUND libinih-dev "inih")
endif()
