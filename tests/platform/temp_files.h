// A private folder for a test's files, removed with everything in it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace tvox::test
{

class TempFolder
{
  public:
    TempFolder()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "tvoxsp-XXXXXX").string();
        path_ = mkdtemp(pattern.data()) != nullptr ? pattern : std::string();
    }
    ~TempFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempFolder(const TempFolder &) = delete;
    TempFolder &operator=(const TempFolder &) = delete;

    // Writes `text` to the file `name` in the folder and returns its path.
    std::string write(std::string_view name, std::string_view text) const
    {
        const std::string file = path_ + "/" + std::string(name);
        std::ofstream(file, std::ios::binary) << text;
        return file;
    }
    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

} // namespace tvox::test
