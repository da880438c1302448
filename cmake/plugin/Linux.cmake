# The shared object, with the names of the .def file as its symbols and everything else local to it; a pkg-config file.
set(exports ${CMAKE_CURRENT_SOURCE_DIR}/zel_rtc_speech_to_text.def)
set(version_script ${CMAKE_CURRENT_BINARY_DIR}/exports.map)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${exports})
file(STRINGS ${exports} names REGEX "^  zel")
list(JOIN names ";\n" names)
file(CONFIGURE OUTPUT ${version_script} CONTENT "{\nglobal:\n@names@;\nlocal:\n  *;\n};\n" @ONLY)

set_target_properties(zel_rtc_speech_to_text PROPERTIES
  VERSION ${PROJECT_VERSION} SOVERSION 0 LINK_DEPENDS ${version_script})
target_link_options(zel_rtc_speech_to_text PRIVATE
  -Wl,--version-script=${version_script} -Wl,--as-needed -Wl,-z,relro,-z,now)
if(NOT ZEL_SANITIZE)
  target_link_options(zel_rtc_speech_to_text PRIVATE -Wl,--no-undefined)
endif()

# Found from the file's own place, so that an installation can be moved.
file(RELATIVE_PATH prefix_from_pkgconfig /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(zel_rtc_speech_to_text.pc.in zel_rtc_speech_to_text.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zel_rtc_speech_to_text.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
