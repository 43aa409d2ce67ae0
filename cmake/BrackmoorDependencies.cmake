# Dependencies, all from Debian packages (scripts/setup installs them).
find_package(Threads REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(Poco REQUIRED COMPONENTS Foundation Util Net NetSSL Crypto)
find_package(PkgConfig REQUIRED)
pkg_check_modules(JSONCPP REQUIRED IMPORTED_TARGET jsoncpp)
if(BRACKMOOR_BUILD_TESTS)
  find_package(GTest REQUIRED)
endif()
