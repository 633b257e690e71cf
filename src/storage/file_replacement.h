// Writing a calibration file so that a failing persist partition, a writer killed half-way or a
// second writer never costs the previous one: each writer puts the new contents in a file of its
// own beside it ("<path>.new.<pid>.<n>"), flushes and syncs it, and only then renames it into
// place, so the last writer wins whole. Where the folder refuses new files for permissions, the
// file is rewritten in place instead.
#pragma once

#include "util/file_handle.h"

#include <string>

namespace tvox
{

class FileReplacement
{
  public:
    // Opens the stream that will become `path`, with the fopen `mode` ("w", "wb+"). An existing
    // file that cannot be opened for writing fails as fopen would, and stays as it is.
    FileReplacement(const char *path, const char *mode);

    // Null when the open failed.
    std::FILE *stream() const { return file_.get(); }

    // Flushes, syncs, closes and puts the file in place. False on any I/O failure (a write
    // error on the stream, the flush, the sync or the close): the previous file is then whole,
    // unless the write was made in place.
    bool commit();

  private:
    std::string path_;
    std::string temp_; // empty when writing in place
    FileHandle file_;
};

} // namespace tvox
