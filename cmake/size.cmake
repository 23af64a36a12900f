# The size-minded release build (CLIENTMGR_SIZE=ON), used for the access
# points' CPUs. The code throws no exceptions and catches none, so unwind
# tables buy nothing: an exception from the C++ library ends the program
# either way. Nothing asks for run-time type information either.
# Executables are not position-independent: on MIPS that would send every
# address through the GOT. Shared libraries (the test shim) stay
# position-independent.
add_compile_options(-Os -ffunction-sections -fdata-sections -fno-exceptions -fno-rtti
                    -fno-asynchronous-unwind-tables -fno-unwind-tables
                    $<$<NOT:$<STREQUAL:$<TARGET_PROPERTY:TYPE>,SHARED_LIBRARY>>:-fno-pie>)
add_link_options(-Os -Wl,--gc-sections -Wl,--as-needed -Wl,-O1 -Wl,--build-id=none
                 $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-no-pie>)
set(CMAKE_INTERPROCEDURAL_OPTIMIZATION ON)
set(CMAKE_CXX_FLAGS_RELEASE "-DNDEBUG")
set(CMAKE_POLICY_DEFAULT_CMP0069 NEW)  # GoogleTest's own project honours the setting too
