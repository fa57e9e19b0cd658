# Every third-party library comes from Debian packages (scripts/setup.sh).
find_package(PkgConfig REQUIRED)
find_package(XercesC 3.2 REQUIRED)
find_package(Boost 1.74 REQUIRED COMPONENTS date_time)
find_package(OpenSSL REQUIRED)
find_package(ZLIB REQUIRED)
find_package(Threads REQUIRED)
pkg_check_modules(LIBZIP REQUIRED IMPORTED_TARGET libzip)
pkg_check_modules(LIBDEFLATE REQUIRED IMPORTED_TARGET libdeflate)
