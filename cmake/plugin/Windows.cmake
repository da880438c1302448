# The DLL, its version resource, import libraries for both families of tool chains, and a zip of what users need.
enable_language(RC)
set(exports ${CMAKE_CURRENT_SOURCE_DIR}/zel_rtc_speech_to_text.def)
configure_file(version.rc.in version.rc @ONLY)

target_sources(zel_rtc_speech_to_text PRIVATE ${exports} ${CMAKE_CURRENT_BINARY_DIR}/version.rc)
set_target_properties(zel_rtc_speech_to_text PROPERTIES PREFIX "" LINK_DEPENDS ${exports})
target_link_options(zel_rtc_speech_to_text PRIVATE
  -Wl,--dynamicbase,--high-entropy-va,--nxcompat,--no-insert-timestamp $<$<CONFIG:Release>:-s>)

# The linker writes libzel_rtc_speech_to_text.dll.a; Microsoft's wants the short import format.
find_program(ZEL_DLLTOOL NAMES llvm-dlltool llvm-dlltool-14 REQUIRED)
set(import_library ${CMAKE_BINARY_DIR}/lib/zel_rtc_speech_to_text.lib)
add_custom_command(OUTPUT ${import_library}
  COMMAND ${ZEL_DLLTOOL} -m i386:x86-64 -d ${exports} -l ${import_library} DEPENDS ${exports})
add_custom_target(zel_import_library ALL DEPENDS ${import_library})
install(FILES ${import_library} ${exports} DESTINATION ${CMAKE_INSTALL_LIBDIR})

# libogg is part of the DLL, and its license goes with it.
install(FILES ${CMAKE_FIND_ROOT_PATH}/libogg-license.txt DESTINATION ${CMAKE_INSTALL_DOCDIR})

# Target `package`.
set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_FILE_NAME zel_rtc_speech_to_text-${PROJECT_VERSION}-windows-x64)
include(CPack)
