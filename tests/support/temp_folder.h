// A private temporary folder for one test, removed with everything in it afterwards.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

class TempFolder {
public:
    TempFolder()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "varnok-test-XXXXXX").string();
        path_ = mkdtemp(pattern.data());
    }
    ~TempFolder() { std::filesystem::remove_all(path_); }
    TempFolder(const TempFolder &) = delete;
    TempFolder &operator=(const TempFolder &) = delete;

    const std::filesystem::path &path() const { return path_; }
    std::string operator/(const std::string &name) const { return (path_ / name).string(); }

    /// Writes `bytes` to `name` (folders on the way are made).
    void write(const std::string &name, const std::string &bytes) const
    {
        std::filesystem::create_directories((path_ / name).parent_path());
        std::ofstream(path_ / name, std::ios::binary) << bytes;
    }

    std::string read(const std::string &name) const
    {
        std::ifstream in(path_ / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

private:
    std::filesystem::path path_;
};

/// Makes a folder the working folder for as long as it lives.
class WorkingFolder {
public:
    explicit WorkingFolder(const std::filesystem::path &folder) : previous_(std::filesystem::current_path())
    {
        std::filesystem::current_path(folder);
    }
    ~WorkingFolder() { std::filesystem::current_path(previous_); }

private:
    std::filesystem::path previous_;
};
