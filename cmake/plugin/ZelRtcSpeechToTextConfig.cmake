include(${CMAKE_CURRENT_LIST_DIR}/ZelRtcSpeechToTextTargets.cmake)

# The package is made with GNU tools; Microsoft's linker has an import library of its own.
if(MSVC)
  get_filename_component(zel_prefix ${CMAKE_CURRENT_LIST_DIR}/../../.. ABSOLUTE)
  set_target_properties(ZelRtcSpeechToText::zel_rtc_speech_to_text PROPERTIES
    IMPORTED_IMPLIB_RELEASE ${zel_prefix}/lib/zel_rtc_speech_to_text.lib)
  unset(zel_prefix)
endif()
