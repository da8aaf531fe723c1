# What has no back end of its own on Windows.
set(topics_from_unsupported desktop file_holders file_sync file_walk metrics network
                            process_setup processes recycle_bin services signatures software
                            software_removal startup terminal)

set(platform_libraries advapi32 crypt32 iphlpapi ntdll ole32 oleaut32 psapi rstrtmgr shell32 shlwapi
                       taskschd user32 uuid version wintrust ws2_32)
