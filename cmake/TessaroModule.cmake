# How every module and every unit test of the tree is declared.

# Compile and link options that all code of the project shares. Warnings are errors; the headers of Qt are system
# headers (imported targets), so only our own code is judged.
add_library(tessaro_options INTERFACE)
target_compile_options(tessaro_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Werror)
target_compile_definitions(tessaro_options INTERFACE QT_DEPRECATED_WARNINGS)
if(TESSARO_SANITIZE)
  target_compile_options(tessaro_options INTERFACE -fsanitize=address,undefined -fno-sanitize-recover=undefined
                                                   -fno-omit-frame-pointer)
  target_link_options(tessaro_options INTERFACE -fsanitize=address,undefined)
endif()
if(TESSARO_TSAN)
  target_compile_options(tessaro_options INTERFACE -fsanitize=thread -fno-omit-frame-pointer)
  target_link_options(tessaro_options INTERFACE -fsanitize=thread)
endif()
if(TESSARO_FUZZ)
  target_compile_options(tessaro_options INTERFACE -fsanitize=fuzzer-no-link,address,undefined
                                                   -fno-sanitize-recover=undefined)
  target_link_options(tessaro_options INTERFACE -fsanitize=address,undefined)
endif()
if(TESSARO_COVERAGE)
  target_compile_options(tessaro_options INTERFACE --coverage -O0)
  target_compile_definitions(tessaro_options INTERFACE TESSARO_COVERAGE)
  target_link_options(tessaro_options INTERFACE --coverage)
endif()

# Modules generate no headers, so the code generators of one need not wait for the libraries that it links.
set(CMAKE_AUTOGEN_ORIGIN_DEPENDS OFF)

# Headers that nearly all sources include, compiled once for modules, and once for tests, which have more of them. A target may
# have more directories and definitions than these, as long as the headers do not ask for them. QtTest asks for Qt5::Network,
# so all tests have it. Tests themselves are not optimized then, which takes half the time; what they test is.
if(TESSARO_PRECOMPILED)
  file(WRITE ${CMAKE_BINARY_DIR}/precompiled/none.cpp "// What the precompiled headers belong to.\n")
  set(common <QByteArray> <QCoreApplication> <QDateTime> <QDebug> <QDir> <QFile> <QHash> <QMap> <QObject> <QPointer> <QString>
             <QStringList> <QThread> <QTimer> <QVariant> <QVector> <algorithm> <array> <atomic> <chrono> <functional> <memory>
             <optional> <utility>)
  add_library(tessaro_precompiled OBJECT ${CMAKE_BINARY_DIR}/precompiled/none.cpp)
  target_precompile_headers(tessaro_precompiled PRIVATE ${common})
  target_link_libraries(tessaro_precompiled PRIVATE Qt5::Core tessaro_options)
  if(TESSARO_TESTS)
    add_library(tessaro_precompiledtest OBJECT ${CMAKE_BINARY_DIR}/precompiled/none.cpp)
    target_precompile_headers(tessaro_precompiledtest PRIVATE ${common} <QSignalSpy> <QTemporaryDir> <QtTest>)
    target_link_libraries(tessaro_precompiledtest PRIVATE Qt5::Test Qt5::Network tessaro_options)
    target_compile_options(tessaro_precompiledtest PRIVATE -O0)
  endif()
endif()

function(tessaro_use_precompiled target kind)
  if(TESSARO_PRECOMPILED)
    target_precompile_headers(${target} REUSE_FROM tessaro_${kind})
  endif()
endfunction()

# tessaro_add_module(NAME SOURCES a.cpp a.h ... [DEPENDS module|Qt target ...])
#
# One static library `tessaro_NAME` from the listed files, with this folder (and the folders of the listed files) on the
# include path of whoever links it.
function(tessaro_add_module name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS" ${ARGN})
  set(target tessaro_${name})
  add_library(${target} STATIC ${ARG_SOURCES})
  set_target_properties(${target} PROPERTIES AUTOMOC ON)
  foreach(source IN LISTS ARG_SOURCES)
    get_filename_component(folder ${CMAKE_CURRENT_SOURCE_DIR}/${source} DIRECTORY)
    list(APPEND folders ${folder})
  endforeach()
  list(REMOVE_DUPLICATES folders)
  target_include_directories(${target} PUBLIC ${folders})
  target_link_libraries(${target} PUBLIC Qt5::Core ${ARG_DEPENDS} PRIVATE tessaro_options)
  tessaro_use_precompiled(${target} precompiled)
endfunction()

# For the classes with signals or slots in the sources of a test; x.cpp includes its x.moc. CMake's own way would look at every
# test for headers with such classes, and compile a file for them, which is empty in nearly all of them.
function(tessaro_generate_moc target)
  set(folder ${CMAKE_CURRENT_BINARY_DIR}/${target}_moc)
  target_include_directories(${target} PRIVATE ${folder})
  foreach(source IN LISTS ARGN)
    get_filename_component(stem ${source} NAME_WE)
    get_filename_component(kind ${source} EXT)
    if(kind STREQUAL ".cpp")
      qt5_generate_moc(${source} ${folder}/${stem}.moc TARGET ${target})
      target_sources(${target} PRIVATE ${folder}/${stem}.moc)
    else()
      file(STRINGS ${source} objects REGEX "Q_OBJECT|Q_GADGET")
      set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
      if(objects)
        qt5_generate_moc(${source} ${folder}/moc_${stem}.cpp TARGET ${target})
        target_sources(${target} PRIVATE ${folder}/moc_${stem}.cpp)
      endif()
    endif()
  endforeach()
endfunction()

# tessaro_add_test(NAME SOURCES tst_x.cpp [DEPENDS module ...] [TIMEOUT seconds])
#
# One QtTest program, registered with CTest under its name. Tests link modules; they never compile module sources again.
function(tessaro_add_test name)
  if(NOT TESSARO_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;DEPENDS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 300) # of what takes seconds: a test that hangs is told by it, and a busy machine ends none
  endif()
  if(TESSARO_TSAN)
    math(EXPR ARG_TIMEOUT "5 * ${ARG_TIMEOUT}")
  endif()
  add_executable(${name} ${ARG_SOURCES})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  tessaro_generate_moc(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_DEPENDS} Qt5::Test tessaro_options)
  if(TESSARO_PRECOMPILED)
    target_link_libraries(${name} PRIVATE Qt5::Network)
    target_compile_options(${name} PRIVATE -O0)
  endif()
  tessaro_use_precompiled(${name} precompiledtest)
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT}
                       ENVIRONMENT "QT_QPA_PLATFORM=offscreen;LC_ALL=C.UTF-8;TZ=UTC")
endfunction()
