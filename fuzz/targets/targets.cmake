# What there is to attack. OPTIONS are libFuzzer's.
target(gzip COVERS io/gzip_reader.cpp)
target(package_header ENGINE PACKAGES COVERS archive/header_check.cpp archive/header_parser.cpp
  archive/header_unpacker.cpp archive/page_buffer.cpp)
target(path_elements COVERS archive/path_elements.cpp)
target(package ENGINE PACKAGES COVERS archive/database.cpp archive/archive_reading.cpp archive/archive_extraction.cpp
  archive/archive_changes.cpp archive/archive_saving.cpp archive/update_step.cpp
  archive/element_names.cpp archive/engine_inputs.cpp archive/folder_coders.cpp archive/folder_decoder.cpp
  archive/folder_splitter.cpp archive/header_stream.cpp archive/name_pool.cpp archive/szip_stream.cpp
  OPTIONS -malloc_limit_mb=1024)
target(compound COVERS storage/compound/compound_check.cpp storage/compound/compound_layout.cpp)
target(compound_salvage ENGINE COVERS storage/salvage/compound_contents.cpp storage/salvage/compound_directory.cpp
  storage/salvage/compound_salvage.cpp storage/salvage/compound_tables.cpp storage/salvage/salvage.cpp)
target(package_salvage ENGINE PACKAGES COVERS storage/salvage/package_salvage.cpp storage/salvage/package_header.cpp
  storage/salvage/lzma2_scan.cpp)
target(property_sets COVERS storage/properties/property_set.cpp storage/properties/property_section.cpp
  storage/properties/property_blocks.cpp storage/properties/property_values.cpp
  storage/properties/property_variant.cpp)
target(strings COVERS io/strings.cpp io/stream_adapter.cpp framework/archive.cpp)
target(path_names COVERS paths/path_name.cpp paths/path_name_table.cpp paths/path_name_text.cpp paths/path_name_hash.cpp
  storage/handles/path_name_serialisation.cpp)
target(path_text COVERS paths/path_text.cpp paths/canonical_path.cpp paths/path_validation.cpp paths/name_helpers.cpp
  paths/unique_names.cpp)
target(cipher COVERS paths/cipher.cpp)
target(hash COVERS paths/spooky_hash.cpp)
# Handles are above all this: what takes them is never called.
target_link_options(path_names PRIVATE -no-pie -Wl,--unresolved-symbols=ignore-all)
target(memory_stream COVERS io/memory_stream.cpp)
target(sub_stream COVERS io/sub_stream.cpp)
target(text_encodings COVERS io/text_encoding.cpp io/encoding_guess.cpp io/text_file_reader.cpp io/text_file_writer.cpp
  io/simple_file.cpp io/file_streams.cpp)
target(settings COVERS io/ini_file.cpp io/ini_text.cpp io/ini_section.cpp io/ini_numbers.cpp io/name_places.cpp
  io/whole_file.cpp)
