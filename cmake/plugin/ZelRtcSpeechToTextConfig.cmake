include(${CMAKE_CURRENT_LIST_DIR}/ZelRtcSpeechToTextTargets.cmake)
