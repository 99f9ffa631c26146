// Files that are there whole or not at all.
#pragma once
#include <string>
#include <vector>

// Contents of a regular file.
std::vector<unsigned char> readFile(const std::string& path);

// Fails when writeFile(path, ...) could not succeed, so that nobody waits for a picture that cannot be kept.
void checkWritable(const std::string& path);

// Fails when two outputs are one file, of which only the later would be left. An empty path is an output not asked for.
void checkApart(const std::vector<std::string>& paths);

// Writes a new file beside `path` and renames it, so that a failure or an interruption leaves no half-written file.
void writeFile(const std::string& path, const std::vector<unsigned char>& bytes);
