# Tests of the annotation table reader: sections built byte by byte, the
# definition files, the record layouts, concurrent parses, and a real module
# assembled by the system toolchain.
kyrt_add_gtest(zca_section_test SOURCES zca_section_test.cpp zca_expression_test.cpp)
kyrt_add_gtest(zca_definitions_test STATIC SOURCES zca_definitions_test.cpp)
kyrt_add_gtest(zca_layout_test SOURCES zca_layout_test.cpp zca_layout_c.c)
kyrt_add_gtest(zca_concurrency_test CONCURRENCY SOURCES zca_concurrency_test.cpp)

# The test modules: one annotation section (zca_fixture_tables.S) in a
# shared library, an executable and, with constant addresses only, an object
# file, assembled by the system toolchain (the compiler driver preprocesses
# the .S files and runs the assembler).
enable_language(ASM)
set(zca_fixture_folder ${CMAKE_CURRENT_LIST_DIR})

add_library(zca_fixture_module SHARED
  ${zca_fixture_folder}/zca_fixture_tables.S ${zca_fixture_folder}/zca_fixture_layout.c)
target_include_directories(zca_fixture_module PRIVATE ${zca_fixture_folder})
kyrt_strict_warnings(zca_fixture_module)

add_executable(zca_fixture_program
  ${zca_fixture_folder}/zca_fixture_tables.S ${zca_fixture_folder}/zca_fixture_layout.c
  ${zca_fixture_folder}/zca_fixture_program.c)
target_include_directories(zca_fixture_program PRIVATE ${zca_fixture_folder})
set_target_properties(zca_fixture_program PROPERTIES POSITION_INDEPENDENT_CODE ON)
target_link_options(zca_fixture_program PRIVATE -pie)
kyrt_strict_warnings(zca_fixture_program)

add_library(zca_fixture_object OBJECT ${zca_fixture_folder}/zca_fixture_object.S)
target_include_directories(zca_fixture_object PRIVATE ${zca_fixture_folder})

kyrt_add_gtest(zca_module_test SOURCES zca_module_test.cpp)
target_link_libraries(zca_module_test PRIVATE zca_fixture_module)
