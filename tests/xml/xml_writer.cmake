# The XML writer object. Its documents are parsed back with libxml2; the
# layout case looks the class's virtual table up in libkyrt.so.
find_package(LibXml2 REQUIRED)

kyrt_add_gtest(xml_writer_test SOURCES xml_writer_test.cpp)
target_link_libraries(xml_writer_test PRIVATE LibXml2::LibXml2 ${CMAKE_DL_LIBS})

kyrt_add_gtest(xml_writer_concurrency_test CONCURRENCY SOURCES xml_writer_concurrency_test.cpp)
target_link_libraries(xml_writer_concurrency_test PRIVATE LibXml2::LibXml2)
