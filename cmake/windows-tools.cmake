# Where scripts/setup-windows.sh puts what is not a package of the machine.
if(DEFINED ENV{VELKOR_WINDOWS_TOOLS})
    set(VELKOR_WINDOWS_TOOLS $ENV{VELKOR_WINDOWS_TOOLS})
elseif(DEFINED ENV{XDG_CACHE_HOME})
    set(VELKOR_WINDOWS_TOOLS $ENV{XDG_CACHE_HOME}/velkor-windows)
else()
    set(VELKOR_WINDOWS_TOOLS $ENV{HOME}/.cache/velkor-windows)
endif()
