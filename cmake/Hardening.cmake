# Every program here parses media from anywhere: the usual distribution
# hardening, in every build. FORTIFY needs optimisation, and would hide libc
# calls from the sanitizers' interceptors, so sanitized builds go without it.
include(CheckPIESupported)
check_pie_supported()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
add_compile_options(-fstack-protector-strong -fstack-clash-protection -fcf-protection)
add_link_options(-Wl,-z,relro,-z,now)
if(NOT EVENLOUD_SANITIZE)
    add_compile_options($<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=3>)
endif()
