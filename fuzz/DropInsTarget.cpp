// A folder with one drop-in: its name is the input's first line, its content the rest. It is either sound in every
// value or left out with a line for each problem.

#include "Bytes.h"
#include "Require.h"
#include "apps/DropIns.h"

#include <filesystem>
#include <fstream>

namespace VtxQel::Fuzz
{
namespace
{

/** A folder that goes when the process ends. */
class Folder
{
  public:
    Folder()
    {
        const bool made = mkdtemp(m_path.data()) != nullptr;
        Require(made, "there is a folder");
    }
    ~Folder() { std::filesystem::remove_all(m_path); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    const std::string& Path() const { return m_path; }

  private:
    std::string m_path = (std::filesystem::temp_directory_path() / "qel-fuzz-XXXXXX").string();
};

/** A file name made of a line, as the file system takes it. */
std::string FileName(std::string line)
{
    std::erase_if(line, [](char character) { return character == '/' || character == '\0'; });
    line.resize(std::min<std::size_t>(line.size(), 200));
    return line + ".toml";
}

void CheckSettings(const ApplicationSettings& settings, const std::string& fileName)
{
    Require(IsApplicationName(settings.name), "the application has a name that is allowed");
    Require(settings.name + ".toml" == fileName, "the application has the file's name");
    Require(settings.window >= 1 && settings.window <= 65535, "the window is in range");
    Require(
        settings.ackTimeout.count() >= 1 && settings.ackTimeout.count() <= 900, "the time for a verdict is in range");
    Require(settings.maxTries >= 1 && settings.maxTries <= 1000000, "the tries are in range");
    Require(settings.maxHeldBytes.value_or(1) >= 1, "something may be held");
}

void CheckDropIns(const DropIns& dropIns, const std::string& folder, const std::string& fileName)
{
    if (fileName.starts_with("."))
    {
        Require(dropIns.applications.empty() && dropIns.problems.empty(), "a hidden file does not count");
        return;
    }
    Require(dropIns.applications.size() <= 1, "a file is one application");
    Require(dropIns.applications.empty() != dropIns.problems.empty(), "it is either sound or told about");
    for (const ApplicationSettings& settings : dropIns.applications)
    {
        CheckSettings(settings, fileName);
    }
    for (const std::string& problem : dropIns.problems)
    {
        Require(problem.starts_with(folder + "/"), "a problem names the file");
        Require(IsOneLine(problem), "a problem is one line");
    }
}

} // namespace
} // namespace VtxQel::Fuzz

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer's name
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace VtxQel;
    static const Fuzz::Folder folder;
    Fuzz::Bytes input(data, size);
    const std::string name = Fuzz::FileName(input.Line());
    const std::filesystem::path file = std::filesystem::path(folder.Path()) / name;
    std::ofstream(file, std::ios::binary) << input.Rest();
    Fuzz::CheckDropIns(LoadDropIns(folder.Path()), folder.Path(), name);
    std::filesystem::remove(file);
    return 0;
}
