// Checks a configuration file with the library's own readers and prints what they make of it.

#include "PropertiesContents.h"
#include "common/Printable.h"
#include "common/Tool.h"

#include <VelaHost_Utility/PropertiesEx.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <sstream>
#include <string_view>

namespace {

using namespace velahost_tools;
using namespace VelaHost_Utility;

/// Why a file is refused.
struct Refusal
{
    std::size_t line;
    std::string text;
};

/// A file with a tag in it is taken for a sectioned one.
bool HasTag(const std::string& content)
{
    std::istringstream lines(content);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t start = line.find_first_not_of(" \t");
        if (start != std::string::npos && line[start] == '<') {
            return true;
        }
    }
    return false;
}

/// The number of the last line that was taken from `in`, which is to hold `content`.
std::size_t CountLinesRead(std::istringstream& in, const std::string& content)
{
    in.clear();
    const std::string_view read(content.data(), static_cast<std::size_t>(in.tellg()));
    const auto newlines = static_cast<std::size_t>(std::count(read.begin(), read.end(), '\n'));
    return read.ends_with('\n') ? newlines : newlines + 1;
}

/// The explanation without the line's number.
std::string GetExplanation(const PropertiesEx& store)
{
    const std::string& lastError = store.GetLastError();
    std::string text = lastError.substr(0, lastError.rfind(" at line "));
    if (text.empty()) {
        // A name defined twice inside a section is explained by the section.
        for (const auto& [type, sections] : PropertiesContents::GetSections(store)) {
            for (const PropertiesSection* section : sections) {
                text += section->GetLastError();
            }
        }
    }
    return text;
}

std::optional<Refusal> Load(PropertiesEx& store, const std::string& content, bool sectioned)
{
    std::istringstream in(content);
    try {
        if (sectioned) {
            store.Load(in, true);
        } else {
            // The flat reader, whose numbers have another range.
            store.Properties::Load(in);
        }
        return std::nullopt;
    } catch (const PropertiesException&) {
        return Refusal{CountLinesRead(in, content), GetExplanation(store)};
    } catch (const std::out_of_range&) {
        return Refusal{CountLinesRead(in, content), "Invalid syntax (nothing after <)"};
    }
}

Json DescribeProperties(const Properties& store)
{
    Json properties = Json::array();
    for (const auto& [name, property] : PropertiesContents::GetProperties(store)) {
        Json description{{"name", name}};
        if (property->GetType() == Property::UIntType) {
            description["type"] = "uint";
            description["value"] = static_cast<const UIntProperty*>(property)->GetValue();
        } else {
            description["type"] = "string";
            description["value"] = static_cast<const StringProperty*>(property)->GetValue();
        }
        properties.push_back(std::move(description));
    }
    return properties;
}

Json DescribeSections(const PropertiesEx& store)
{
    Json descriptions = Json::array();
    for (const auto& [type, sections] : PropertiesContents::GetSections(store)) {
        for (const PropertiesSection* section : sections) {
            descriptions.push_back({{"type", type},
                                    {"arguments", PropertiesContents::GetArguments(*section)},
                                    {"properties", DescribeProperties(*section)}});
        }
    }
    return descriptions;
}

void PrintProperties(const Json& properties)
{
    for (const Json& property : properties) {
        const auto& type = property["type"].get_ref<const std::string&>();
        const Json& value = property["value"];
        const std::string text = value.is_string()
                                     ? '"' + Printable(value.get_ref<const std::string&>()) + '"'
                                     : value.dump();
        std::printf("%-6s %s = %s\n", type.c_str(),
                    Printable(property["name"].get_ref<const std::string&>()).c_str(),
                    text.c_str());
    }
}

void PrintText(const Json& document)
{
    PrintProperties(document["properties"]);
    for (const Json& section : document["sections"]) {
        const std::string type = Printable(section["type"].get_ref<const std::string&>());
        std::string tag = type;
        for (const Json& argument : section["arguments"]) {
            tag += ' ' + Printable(argument.get_ref<const std::string&>());
        }
        std::printf("<%s>\n", tag.c_str());
        PrintProperties(section["properties"]);
        std::printf("</%s>\n", type.c_str());
    }
}

struct Options
{
    std::string file;
    bool flat = false;
    bool sectioned = false;
    bool json = false;
};

ExitStatus Check(const Options& options)
{
    const std::string content = ReadFile(options.file);
    const bool sectioned = options.sectioned || (!options.flat && HasTag(content));
    PropertiesEx store;
    const std::optional<Refusal> refusal = Load(store, content, sectioned);

    Json document{{"file", options.file}, {"format", sectioned ? "sectioned" : "flat"}};
    if (refusal) {
        document["error"] = {{"line", refusal->line}, {"message", refusal->text}};
        std::fprintf(stderr, "%s:%zu: %s\n", options.file.c_str(), refusal->line,
                     refusal->text.c_str());
    } else {
        document["properties"] = DescribeProperties(store);
        document["sections"] = DescribeSections(store);
    }
    if (options.json) {
        PrintJson(document);
    } else if (!refusal) {
        PrintText(document);
    }
    return refusal ? Refused : Success;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    CLI::App app("Checks a configuration file and prints the properties that it defines.",
                 "velahost-config");
    app.add_option("FILE", options.file, "The file to check")->required();
    CLI::Option* flat = app.add_flag("--flat", options.flat, "Read it as a flat file");
    app.add_flag("--sectioned", options.sectioned, "Read it as a sectioned file")->excludes(flat);
    app.add_flag("--json", options.json, "Print JSON");
    return RunTool(
        app, argc, argv, [&options] { return Check(options); }, CannotAnswer);
}
