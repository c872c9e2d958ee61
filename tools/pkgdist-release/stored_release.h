// A release as it is stored: the text of its manifest.
#pragma once

#include <string>

#include "file_io.h"
#include "manifest.h"

namespace pkgdist::release_program {

// The text of the manifest of a directory, or of a manifest file. Throws std::runtime_error.
std::string read_manifest(const std::string& path);

// Replaces a file of a directory at once, and writes it to the disk. Throws std::runtime_error.
void replace_file(int directory, const std::string& path, std::string_view text);

release::Fd open_directory(const std::string& path);

}  // namespace pkgdist::release_program
