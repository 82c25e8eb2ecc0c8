// Configuration files: loading one into a fresh store that is released afterwards, and looking
// values up in a loaded store.
//
// Every reader gets the same entries in a file of its own syntax. All keep the quotes of the texts
// in the values except velahost, the floor and inih's handler, which remove them and convert the
// numbers while loading; the others convert a number whenever it is looked up.
#include "support/Processors.h"

#include <VelaHost_Utility/Properties.h>
#include <VelaHost_Utility/PropertiesEx.h>

#include <Poco/AutoPtr.h>
#include <Poco/Util/IniFileConfiguration.h>
#include <Poco/Util/PropertyFileConfiguration.h>
#include <benchmark/benchmark.h>
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <glib.h>
#include <ini.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using VelaHost_Utility::Properties;
using VelaHost_Utility::PropertiesEx;

using PropertyTree = boost::property_tree::ptree;

// ---- What is in the files

/// One property, and how the contestants name it.
struct Entry
{
    std::string name;
    /// In quotes if a text.
    std::string value;
    std::string sectionType;
    int sectionIndex = 0;

    std::string section; // "TYPE INDEX", empty in a flat file
    std::string path;    // "SECTION.NAME"
    PropertyTree::path_type treePath;

    bool IsText() const { return value.front() == '"'; }
};

/// In the order of the file; those of one section follow each other.
using Configuration = std::vector<Entry>;

Entry MakeEntry(std::size_t number)
{
    constexpr const char* subjects[] = {"Link",  "Max",   "Trunk",   "Default", "Alarm",
                                        "Queue", "Board", "Channel", "Trace",   "Clock"};
    constexpr const char* aspects[] = {"Timeout", "Label",    "Port", "Path",  "Retries",
                                       "Mask",    "Interval", "Host", "Limit", "Description"};
    constexpr const char* texts[] = {"eth0", "/var/lib/vela/trunks/primary", "left slot, upper row",
                                     "192.168.17.4"};
    constexpr std::size_t kinds = std::size(subjects) * std::size(aspects);

    const std::size_t aspect = number % std::size(aspects);
    Entry entry;
    entry.name = subjects[number / std::size(aspects) % std::size(subjects)];
    entry.name += aspects[aspect];
    if (number >= kinds) {
        entry.name += "_" + std::to_string(number / kinds);
    }
    const bool isText = aspect == 1 || aspect == 3 || aspect == 7 || aspect == 9;
    entry.value = isText ? '"' + std::string(texts[number % 13 % std::size(texts)]) + '"'
                         : std::to_string(number * 7919 % 100'003);
    entry.path = entry.name;
    entry.treePath = PropertyTree::path_type(entry.path);
    return entry;
}

Configuration MakeFlat(std::size_t count)
{
    Configuration configuration;
    for (std::size_t i = 0; i < count; ++i) {
        configuration.push_back(MakeEntry(i));
    }
    return configuration;
}

Configuration MakeSectioned(std::size_t count)
{
    constexpr const char* types[] = {"Board", "Trunk", "Route", "Channel"};
    const std::size_t perSection = std::min<std::size_t>(count / 2, 20);

    Configuration configuration;
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t section = i / perSection;
        Entry entry = MakeEntry(i % perSection);
        entry.sectionType = types[section % std::size(types)];
        entry.sectionIndex = static_cast<int>(section / std::size(types));
        entry.section = entry.sectionType + ' ' + std::to_string(entry.sectionIndex);
        entry.path = entry.section + '.' + entry.name;
        entry.treePath = PropertyTree::path_type(entry.path);
        configuration.push_back(std::move(entry));
    }
    return configuration;
}

/// How a reader wants its file.
struct Syntax
{
    char comment = '#';
    const char* head = "";
    /// "<TYPE INDEX>" and "</TYPE>" instead of "[TYPE INDEX]".
    bool hasTags = false;
};

void WriteFile(const std::string& path, const Configuration& configuration, const Syntax& syntax)
{
    std::ofstream file(path);
    file << syntax.comment << " Generated; changes are lost.\n\n" << syntax.head;
    const Entry* previous = nullptr;
    std::size_t count = 0;
    for (const Entry& entry : configuration) {
        if (!entry.section.empty() && (previous == nullptr || previous->section != entry.section)) {
            if (syntax.hasTags && previous != nullptr) {
                file << "</" << previous->sectionType << ">\n";
            }
            file << '\n'
                 << (syntax.hasTags ? '<' : '[') << entry.section << (syntax.hasTags ? '>' : ']')
                 << '\n';
        }
        if (++count % 10 == 0) {
            file << '\n' << syntax.comment << " What follows is seldom changed.\n";
        }
        file << entry.name << " = " << entry.value << '\n';
        previous = &entry;
    }
    if (syntax.hasTags) {
        file << "</" << configuration.back().sectionType << ">\n";
    }
    if (!file.flush()) {
        std::abort();
    }
}

class TemporaryDirectory
{
public:
    TemporaryDirectory()
    {
        if (mkdtemp(m_Path.data()) == nullptr) {
            std::abort();
        }
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    ~TemporaryDirectory() { std::filesystem::remove_all(m_Path); }

    std::string File(const std::string& name) const { return m_Path + '/' + name; }

private:
    std::string m_Path = std::filesystem::temp_directory_path() / "velahost-bench-XXXXXX";
};

// ---- The library

struct VelaHostFlat
{
    static constexpr Syntax syntax{};

    explicit VelaHostFlat(const std::string& path)
    {
        std::ifstream in(path);
        store.Load(in);
    }
    unsigned int GetNumber(const Entry& entry)
    {
        return GetUIntPropertyValue(store, entry.name.c_str(), 0);
    }
    const std::string& GetText(const Entry& entry)
    {
        return GetStringPropertyValue(store, entry.name.c_str(), none);
    }

    Properties store;
    std::string none;
};

struct VelaHostSectioned
{
    static constexpr Syntax syntax{.hasTags = true};

    explicit VelaHostSectioned(const std::string& path)
    {
        std::ifstream in(path);
        store.Load(in, true);
    }
    Properties& Section(const Entry& entry)
    {
        return *store.GetSection(entry.sectionType.c_str(), entry.sectionIndex);
    }
    unsigned int GetNumber(const Entry& entry)
    {
        return GetUIntPropertyValue(Section(entry), entry.name.c_str(), 0);
    }
    const std::string& GetText(const Entry& entry)
    {
        return GetStringPropertyValue(Section(entry), entry.name.c_str(), none);
    }

    PropertiesEx store;
    std::string none;
};

// ---- The same store without the library's reader

struct Record
{
    const bool isText;
};

struct NumberRecord : Record
{
    explicit NumberRecord(unsigned int number) : Record{false}, value(number) {}

    unsigned int value;
};

struct TextRecord : Record
{
    explicit TextRecord(std::string_view text) : Record{true}, value(text) {}

    std::string value;
};

struct ReleaseByType
{
    void operator()(Record* record) const
    {
        if (record->isText) {
            delete static_cast<TextRecord*>(record);
        } else {
            delete static_cast<NumberRecord*>(record);
        }
    }
};

class Table
{
public:
    void Add(std::string_view name, std::string_view value)
    {
        OwnedRecord record;
        if (value.front() == '"') {
            record.reset(new TextRecord(value.substr(1, value.size() - 2)));
        } else {
            unsigned int number = 0;
            std::from_chars(value.data(), value.data() + value.size(), number);
            record.reset(new NumberRecord(number));
        }
        m_Records.emplace(name, std::move(record));
    }

    unsigned int GetNumber(std::string_view name) const
    {
        const Record& record = *m_Records.find(name)->second;
        return record.isText ? 0 : static_cast<const NumberRecord&>(record).value;
    }
    const std::string& GetText(std::string_view name) const
    {
        static const std::string s_None;
        const Record& record = *m_Records.find(name)->second;
        return record.isText ? static_cast<const TextRecord&>(record).value : s_None;
    }

private:
    using OwnedRecord = std::unique_ptr<Record, ReleaseByType>;
    std::map<std::string, OwnedRecord, std::less<>> m_Records;
};

struct TableOfSection : Table
{
    std::vector<std::string> arguments;
};

class SectionTables
{
public:
    Table& AddSection(std::string_view type, std::string_view argument)
    {
        auto section = std::make_unique<TableOfSection>();
        section->arguments.emplace_back(argument);
        auto place = m_Sections.lower_bound(type);
        if (place == m_Sections.end() || place->first != type) {
            place = m_Sections.emplace_hint(place, type, Sections());
        }
        place->second.push_back(std::move(section));
        return *place->second.back();
    }
    const Table& GetSection(std::string_view type, int index) const
    {
        return *m_Sections.find(type)->second[static_cast<std::size_t>(index)];
    }

private:
    using Sections = std::vector<std::unique_ptr<TableOfSection>>;
    std::map<std::string, Sections, std::less<>> m_Sections;
};

struct FlatTable
{
    unsigned int GetNumber(const Entry& entry) const { return table.GetNumber(entry.name); }
    const std::string& GetText(const Entry& entry) const { return table.GetText(entry.name); }

    Table table;
};

struct SectionedTables
{
    const Table& Section(const Entry& entry) const
    {
        return tables.GetSection(entry.sectionType, entry.sectionIndex);
    }
    unsigned int GetNumber(const Entry& entry) const
    {
        return Section(entry).GetNumber(entry.name);
    }
    const std::string& GetText(const Entry& entry) const
    {
        return Section(entry).GetText(entry.name);
    }

    SectionTables tables;
};

// ---- The least that a reader does: it trusts its input and knows where the blanks are

std::string ReadWhole(const std::string& path)
{
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status = {};
    if (file < 0 || fstat(file, &status) != 0) {
        std::abort();
    }
    std::string content(static_cast<std::size_t>(status.st_size), '\0');
    if (read(file, content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
        std::abort();
    }
    close(file);
    return content;
}

template <typename HandleLine>
void ForEachLine(std::string_view content, const HandleLine& handleLine)
{
    while (!content.empty()) {
        const std::size_t end = content.find('\n');
        if (end != 0 && content.front() != '#') {
            handleLine(content.substr(0, end));
        }
        content.remove_prefix(end + 1);
    }
}

void AddLine(Table& table, std::string_view line)
{
    const std::size_t sign = line.find('=');
    table.Add(line.substr(0, sign - 1), line.substr(sign + 2));
}

struct FloorFlat : FlatTable
{
    static constexpr Syntax syntax{};

    explicit FloorFlat(const std::string& path)
    {
        const std::string content = ReadWhole(path);
        ForEachLine(content, [this](std::string_view line) { AddLine(table, line); });
    }
};

struct FloorSectioned : SectionedTables
{
    static constexpr Syntax syntax{.hasTags = true};

    explicit FloorSectioned(const std::string& path)
    {
        const std::string content = ReadWhole(path);
        Table* open = nullptr;
        ForEachLine(content, [&](std::string_view line) {
            if (line.front() != '<') {
                AddLine(*open, line);
            } else if (line[1] != '/') {
                const std::size_t blank = line.find(' ');
                open = &tables.AddSection(line.substr(1, blank - 1),
                                          line.substr(blank + 1, line.size() - blank - 2));
            }
        });
    }
};

// ---- inih, which leaves storing to its handler

struct InihFlat : FlatTable
{
    static constexpr Syntax syntax{};

    explicit InihFlat(const std::string& path)
    {
        const auto handle = [](void* self, const char*, const char* name, const char* value) {
            static_cast<InihFlat*>(self)->table.Add(name, value);
            return 1;
        };
        if (ini_parse(path.c_str(), handle, this) != 0) {
            std::abort();
        }
    }
};

struct InihSectioned : SectionedTables
{
    static constexpr Syntax syntax{};

    explicit InihSectioned(const std::string& path)
    {
        const auto handle = [](void* self, const char* section, const char* name,
                               const char* value) {
            static_cast<InihSectioned*>(self)->Add(section, name, value);
            return 1;
        };
        if (ini_parse(path.c_str(), handle, this) != 0) {
            std::abort();
        }
    }

    void Add(std::string_view section, const char* name, const char* value)
    {
        if (section != openSection) {
            openSection = section;
            const std::size_t blank = section.find(' ');
            open = &tables.AddSection(section.substr(0, blank), section.substr(blank + 1));
        }
        open->Add(name, value);
    }

    std::string openSection;
    Table* open = nullptr;
};

// ---- POCO; its look-ups take a lock

template <typename Reader>
struct PocoReader
{
    explicit PocoReader(const std::string& path) : configuration(new Reader(path)) {}
    unsigned int GetNumber(const Entry& entry) { return configuration->getUInt(entry.path); }
    std::string GetText(const Entry& entry) { return configuration->getString(entry.path); }

    Poco::AutoPtr<Reader> configuration;
};

struct PocoFlat : PocoReader<Poco::Util::PropertyFileConfiguration>
{
    static constexpr Syntax syntax{};
    using PocoReader::PocoReader;
};

struct PocoSectioned : PocoReader<Poco::Util::IniFileConfiguration>
{
    static constexpr Syntax syntax{.comment = ';'};
    using PocoReader::PocoReader;
};

// ---- Boost

struct Boost
{
    static constexpr Syntax syntax{};

    explicit Boost(const std::string& path) { boost::property_tree::read_ini(path, tree); }
    unsigned int GetNumber(const Entry& entry) { return tree.get<unsigned int>(entry.treePath); }
    const std::string& GetText(const Entry& entry) { return tree.get_child(entry.treePath).data(); }

    PropertyTree tree;
};

// ---- GLib

struct FreeKeyFile
{
    void operator()(GKeyFile* file) const { g_key_file_free(file); }
};

struct FreeText
{
    void operator()(char* text) const { g_free(text); }
};

using GlibText = std::unique_ptr<char, FreeText>;

/// It knows no properties outside of a group.
constexpr const char* s_FlatGroup = "properties";

struct Glib
{
    explicit Glib(const std::string& path) : file(g_key_file_new())
    {
        if (!g_key_file_load_from_file(file.get(), path.c_str(), G_KEY_FILE_NONE, nullptr)) {
            std::abort();
        }
    }
    unsigned int GetNumber(const char* group, const Entry& entry)
    {
        return static_cast<unsigned int>(
            g_key_file_get_integer(file.get(), group, entry.name.c_str(), nullptr));
    }
    GlibText GetText(const char* group, const Entry& entry)
    {
        return GlibText(g_key_file_get_string(file.get(), group, entry.name.c_str(), nullptr));
    }

    std::unique_ptr<GKeyFile, FreeKeyFile> file;
};

struct GlibFlat : Glib
{
    static constexpr Syntax syntax{.head = "[properties]\n"};

    using Glib::Glib;
    unsigned int GetNumber(const Entry& entry) { return Glib::GetNumber(s_FlatGroup, entry); }
    GlibText GetText(const Entry& entry) { return Glib::GetText(s_FlatGroup, entry); }
};

struct GlibSectioned : Glib
{
    static constexpr Syntax syntax{};

    using Glib::Glib;
    unsigned int GetNumber(const Entry& entry)
    {
        return Glib::GetNumber(entry.section.c_str(), entry);
    }
    GlibText GetText(const Entry& entry) { return Glib::GetText(entry.section.c_str(), entry); }
};

// ---- The workloads

std::string_view Unquoted(std::string_view text)
{
    return text.starts_with('"') ? text.substr(1, text.size() - 2) : text;
}

const std::string& ToString(const std::string& text)
{
    return text;
}

std::string ToString(const GlibText& text)
{
    return text.get();
}

/// Every contestant gives back what is in its file.
template <typename Contestant>
void Check(const std::string& file, const Configuration& configuration)
{
    Contestant contestant(file);
    for (const Entry& entry : configuration) {
        const std::string value = entry.IsText()
                                      ? std::string(Unquoted(ToString(contestant.GetText(entry))))
                                      : std::to_string(contestant.GetNumber(entry));
        if (value != Unquoted(entry.value)) {
            std::fprintf(stderr, "%s: %s is %s\n", file.c_str(), entry.path.c_str(), value.c_str());
            std::abort();
        }
    }
}

template <typename Contestant>
void Load(benchmark::State& state, const std::string& file)
{
    bench::RunOn(bench::Processor::First);
    for (auto _ : state) {
        Contestant contestant(file);
        benchmark::DoNotOptimize(contestant);
    }
}

/// One look-up an iteration; `keys` are in random order.
template <typename Contestant>
void LookUp(benchmark::State& state, const std::string& file, const Configuration& keys)
{
    bench::RunOn(bench::Processor::First);
    Contestant contestant(file);
    auto key = keys.begin();
    for (auto _ : state) {
        if (key->IsText()) {
            benchmark::DoNotOptimize(contestant.GetText(*key));
        } else {
            benchmark::DoNotOptimize(contestant.GetNumber(*key));
        }
        if (++key == keys.end()) {
            key = keys.begin();
        }
    }
}

/// One configuration in every syntax, and the workloads on it.
class Workloads
{
public:
    Workloads(const TemporaryDirectory& directory, std::string name, Configuration configuration)
        : m_Directory(directory),
          m_Name(std::move(name)),
          m_Size(std::to_string(configuration.size())),
          m_Configuration(std::move(configuration)),
          m_Keys(m_Configuration)
    {
        std::shuffle(m_Keys.begin(), m_Keys.end(), std::mt19937(20240229));
    }

    template <typename Contestant>
    void Register(const char* contestant)
    {
        const std::string file = FileFor<Contestant>(contestant);
        Register("/load/" + m_Size + '/' + contestant,
                 [file](benchmark::State& state) { Load<Contestant>(state, file); });
    }

    template <typename Contestant>
    void RegisterLookUp(const char* contestant)
    {
        const std::string file = FileFor<Contestant>(contestant);
        // The same keys for all, and no store loaded just to find out how many.
        Register(std::string("/lookup/") + contestant, [this, file](benchmark::State& state) {
            LookUp<Contestant>(state, file, m_Keys);
        })->Iterations(static_cast<benchmark::IterationCount>(2 * m_Keys.size()));
    }

private:
    template <typename Contestant>
    std::string FileFor(const char* contestant)
    {
        const std::string file = m_Directory.File(m_Name + '-' + m_Size + '-' + contestant);
        if (!std::filesystem::exists(file)) {
            WriteFile(file, m_Configuration, Contestant::syntax);
            Check<Contestant>(file, m_Configuration);
        }
        return file;
    }

    template <typename Function>
    auto* Register(const std::string& workload, const Function& function)
    {
        const std::string name = "config/" + m_Name + workload;
        return benchmark::RegisterBenchmark(name.c_str(), function)->UseRealTime();
    }

    const TemporaryDirectory& m_Directory;
    const std::string m_Name;
    const std::string m_Size;
    const Configuration m_Configuration;
    Configuration m_Keys;
};

void RegisterFlat(Workloads& workloads)
{
    workloads.Register<VelaHostFlat>("velahost");
    workloads.Register<FloorFlat>("floor");
    workloads.Register<PocoFlat>("poco");
    workloads.Register<Boost>("boost");
    workloads.Register<InihFlat>("inih");
    workloads.Register<GlibFlat>("glib");
}

void RegisterSectioned(Workloads& workloads)
{
    workloads.Register<VelaHostSectioned>("velahost");
    workloads.Register<FloorSectioned>("floor");
    workloads.Register<PocoSectioned>("poco");
    workloads.Register<Boost>("boost");
    workloads.Register<InihSectioned>("inih");
    workloads.Register<GlibSectioned>("glib");
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    const TemporaryDirectory directory;
    Workloads smallFlat(directory, "flat", MakeFlat(10));
    Workloads flat(directory, "flat", MakeFlat(20'000));
    Workloads smallSectioned(directory, "sectioned", MakeSectioned(10));
    Workloads sectioned(directory, "sectioned", MakeSectioned(20'000));
    RegisterFlat(smallFlat);
    RegisterFlat(flat);
    RegisterSectioned(smallSectioned);
    RegisterSectioned(sectioned);

    flat.RegisterLookUp<VelaHostFlat>("velahost");
    flat.RegisterLookUp<FloorFlat>("floor");
    flat.RegisterLookUp<PocoFlat>("poco");
    flat.RegisterLookUp<Boost>("boost");
    flat.RegisterLookUp<GlibFlat>("glib");
    sectioned.RegisterLookUp<VelaHostSectioned>("velahost");
    sectioned.RegisterLookUp<FloorSectioned>("floor");
    sectioned.RegisterLookUp<PocoSectioned>("poco");
    sectioned.RegisterLookUp<Boost>("boost");
    sectioned.RegisterLookUp<GlibSectioned>("glib");
    benchmark::RunSpecifiedBenchmarks();
}
