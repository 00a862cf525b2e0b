# What there is to attack. OPTIONS are libFuzzer's.
target(gzip COVERS io/gzip_reader.cpp)
target(package_header ENGINE COVERS archive/header_check.cpp archive/header_parser.cpp archive/header_unpacker.cpp
  archive/page_buffer.cpp)
target(path_elements COVERS archive/path_elements.cpp)
