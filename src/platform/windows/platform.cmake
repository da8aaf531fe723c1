# What has no back end of its own on Windows: a terminal is not for yes and no there.
set(topics_from_unsupported terminal)

set(platform_libraries advapi32 crypt32 iphlpapi ntdll ole32 oleaut32 psapi rstrtmgr shell32
                       shlwapi taskschd user32 uuid version wintrust ws2_32)
