# What Linux has no back end for: most are concepts that are not there. Local sockets are the framework's.
set(topics_from_unsupported desktop file_holders local_channel paths signatures software_removal startup)

find_package(PkgConfig REQUIRED)
pkg_check_modules(libsystemd REQUIRED IMPORTED_TARGET GLOBAL libsystemd)
set(platform_libraries PkgConfig::libsystemd)
