// Owning handle for a stdio stream: every path that opens a file closes it.
#pragma once

#include <cstdio>
#include <memory>

namespace tvox
{

struct FileCloser {
    void operator()(std::FILE *file) const { std::fclose(file); }
};
using FileHandle = std::unique_ptr<std::FILE, FileCloser>;

} // namespace tvox
