# Where Qt's headers are not installed, because their package brings Qt's graphics with it, scripts/qt-files has unpacked them.
set(TESSARO_QT_FILES ${PROJECT_SOURCE_DIR}/.cache/qt)
if(EXISTS ${TESSARO_QT_FILES}/.complete AND NOT CMAKE_CROSSCOMPILING AND NOT TESSARO_TSAN)
  list(APPEND CMAKE_PREFIX_PATH ${TESSARO_QT_FILES}/usr)
  # The libraries there are links to the installed ones, which every program finds by itself.
  set(CMAKE_SKIP_BUILD_RPATH ON)
endif()
