// A private temporary folder for one test, removed with everything in it afterwards.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

/// Every byte of a file ("" when it cannot be read).
inline std::string file_text(const std::filesystem::path &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

struct TempFolder {
    TempFolder() = default;
    TempFolder(const TempFolder &) = delete;
    ~TempFolder() { std::filesystem::remove_all(folder); }

    const std::filesystem::path &path() const { return folder; }
    std::string operator/(const std::string &name) const { return (folder / name).string(); }

    /// Writes `bytes` to `name` (folders on the way are made).
    void write(const std::string &name, const std::string &bytes) const
    {
        std::filesystem::create_directories((folder / name).parent_path());
        std::ofstream(folder / name, std::ios::binary) << bytes;
    }

    std::string read(const std::string &name) const { return file_text(folder / name); }

    const std::filesystem::path folder =
        mkdtemp((std::filesystem::temp_directory_path() / "varnok-test-XXXXXX").string().data());
};

/// Makes a folder the working folder for as long as it lives.
struct WorkingFolder {
    explicit WorkingFolder(const std::filesystem::path &folder) { std::filesystem::current_path(folder); }
    ~WorkingFolder() { std::filesystem::current_path(previous); }

    const std::filesystem::path previous = std::filesystem::current_path();
};
