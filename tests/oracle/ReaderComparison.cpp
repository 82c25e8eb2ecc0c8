#include "oracle/ReaderComparison.h"

#include "../../src/PropertiesContents.h"
#include "support/interpose/Interposed.h"

#include <VelaHost_Utility/Properties.h>
#include <VelaHost_Utility/PropertiesEx.h>

#include <array>
#include <cstdio>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <type_traits>

namespace velahost_test {
namespace {

using VelaHost_Utility::Properties;
using VelaHost_Utility::PropertiesContents;
using VelaHost_Utility::PropertiesEx;
using VelaHost_Utility::PropertiesException;
using VelaHost_Utility::PropertiesSection;
using VelaHost_Utility::Property;
using VelaHost_Utility::StringProperty;
using VelaHost_Utility::UIntProperty;

std::string Shown(const ReferenceResult& result)
{
    switch (result.kind) {
    case ReferenceResult::Kind::Loaded:
        return "loaded, " + std::to_string(result.consumed) + " bytes taken";
    case ReferenceResult::Kind::Refused:
        return "refused at " + result.site + ", " + std::to_string(result.consumed) +
               " bytes taken";
    default:
        return "out of range, " + std::to_string(result.consumed) + " bytes taken";
    }
}

std::string Shown(const ReferenceValue& value)
{
    if (const unsigned int* number = std::get_if<unsigned int>(&value)) {
        return "the number " + std::to_string(*number);
    }
    return "the text " + Escaped(std::get<std::string>(value));
}

std::string Shown(const std::string& text)
{
    return Escaped(text);
}

template <typename T>
std::string Difference(const std::string& what, const T& library, const T& reference)
{
    if (library == reference) {
        return {};
    }
    return what + ": the library has " + Shown(library) + ", the reference reader " +
           Shown(reference);
}

/// The value of a property, looked at through all three lookups, which have to agree.
ReferenceValue ValueOf(Properties& store, const char* name, Property* property)
{
    UIntProperty* number = store.GetUIntProperty(name);
    StringProperty* text = store.GetStringProperty(name);
    if (number == property && text == nullptr && number->GetType() == Property::UIntType) {
        return number->GetValue();
    }
    if (text == property && number == nullptr && text->GetType() == Property::StringType) {
        return text->GetValue();
    }
    return std::string("(lookups by type that contradict each other)");
}

std::string CompareTable(const std::string& where, Properties& library,
                         const ReferenceTable& reference)
{
    for (const auto& [name, value] : reference) {
        Property* property = library.GetProperty(name.c_str(), Property::AnyType);
        const std::string what = where + "property " + Escaped(name);
        if (property == nullptr) {
            return what + ": the library has none, the reference reader " + Shown(value);
        }
        const std::string difference =
            Difference(what, ValueOf(library, name.c_str(), property), value);
        if (!difference.empty()) {
            return difference;
        }
    }
    for (const auto& [name, property] : PropertiesContents::GetProperties(library)) {
        if (!reference.contains(name)) {
            return where + "property " + Escaped(name) + ": only the library has it";
        }
    }
    return {};
}

std::string CompareSection(const std::string& where, PropertiesSection& library,
                           const ReferenceSection& reference)
{
    const std::size_t held = PropertiesContents::GetArguments(library).size();
    if (held != reference.arguments.size()) {
        return where + "the library has " + std::to_string(held) +
               " arguments, the reference reader " + std::to_string(reference.arguments.size());
    }
    if (!PropertiesContents::GetSections(library).empty()) {
        return where + "the library has sections within it";
    }
    for (std::size_t i = 0; i <= reference.arguments.size(); ++i) {
        const char* argument = library.GetArg(static_cast<int>(i));
        const std::string what = where + "argument " + std::to_string(i);
        if (i == reference.arguments.size()) {
            if (argument != nullptr) {
                return what + ": looked up behind the last, it is " + Escaped(argument);
            }
        } else if (argument == nullptr) {
            return what + ": not found, although the library has it";
        } else if (argument != reference.arguments[i]) {
            return Difference(what, std::string(argument), reference.arguments[i]);
        }
    }
    std::string difference =
        Difference(where + "last error", library.GetLastError(), reference.lastError);
    if (difference.empty()) {
        difference = CompareTable(where, library, reference.properties);
    }
    return difference;
}

std::string CompareSections(PropertiesEx& library, const ReferenceStore& reference)
{
    for (const auto& [type, sections] : PropertiesContents::GetSections(library)) {
        if (!reference.sections.contains(type)) {
            return "sections " + Escaped(type) + ": only the library has the type";
        }
    }
    for (const auto& [type, sections] : reference.sections) {
        for (std::size_t i = 0; i <= sections.size(); ++i) {
            PropertiesSection* section = library.GetSection(type.c_str(), static_cast<int>(i));
            const std::string where =
                "section " + Escaped(type) + " number " + std::to_string(i) + ", ";
            if ((section == nullptr) != (i == sections.size())) {
                return where + "only one reader has it";
            }
            if (section != nullptr) {
                std::string difference = CompareSection(where, *section, sections[i]);
                if (!difference.empty()) {
                    return difference;
                }
            }
        }
    }
    return {};
}

/// Loads with the library; `result` tells how that ended. Tells what an exception shows beside the
/// promised; empty when there is nothing.
template <typename Store>
std::string Load(Store& library, std::istream& in, bool sectionsAllowed, ReferenceResult& result)
{
    try {
        if constexpr (std::is_same_v<Store, PropertiesEx>) {
            library.Load(in, sectionsAllowed);
        } else {
            library.Load(in);
        }
    } catch (const PropertiesException& e) {
        const VelaHost_Utility::Exception::Context& context = e.GetContext();
        result.kind = ReferenceResult::Kind::Refused;
        result.site = std::string(context.m_File) + ":" + std::to_string(context.m_Line);
        if (e.GetErrorCode() != 0x2FFF || e.GetText() != "PropertiesException" ||
            context.m_CompName != nullptr ||
            context.m_Logger != VelaHost_Utility::DefaultExceptionLogger) {
            return "the library throws an exception with other fields than promised";
        }
    } catch (const std::out_of_range& e) {
        result.kind = ReferenceResult::Kind::OutOfRange;
        if (!std::string_view(e.what()).starts_with("basic_string::at")) {
            return std::string("the library throws std::out_of_range with ") + e.what();
        }
    }
    return {};
}

} // namespace

ReaderComparison::ReaderComparison()
    : m_Puts(interposed::puts, [this](const char* line) -> std::optional<int> {
          if (!m_IsLoading) {
              return std::nullopt;
          }
          m_Logged += line;
          m_Logged += '\n';
          return 1;
      })
{}

std::string ReaderComparison::FindDifference(const ReaderCase& readerCase)
{
    return readerCase.format == FileFormat::Flat ? Compare<Properties>(readerCase)
                                                 : Compare<PropertiesEx>(readerCase);
}

template <typename Store>
std::string ReaderComparison::Compare(const ReaderCase& readerCase)
{
    constexpr bool isSectioned = std::is_same_v<Store, PropertiesEx>;
    const bool sectionsAllowed = readerCase.format == FileFormat::Sectioned;
    Store library;
    ReferenceStore reference;
    library.SetLastError(readerCase.lastError.c_str(), -1);
    reference.lastError = readerCase.lastError;
    m_Results.clear();

    for (const std::string& file : readerCase.files) {
        std::istringstream in(file);
        ReferenceResult result;
        m_Logged.clear();
        m_IsLoading = true;
        const std::string breach = Load(library, in, sectionsAllowed, result);
        m_IsLoading = false;
        if (!breach.empty()) {
            return breach;
        }
        in.clear();
        result.consumed = static_cast<std::size_t>(in.tellg());
        const std::string expectedLog = result.kind == ReferenceResult::Kind::Refused
                                            ? "PropertiesException at " + result.site + "\n"
                                            : "";
        if constexpr (isSectioned) {
            m_Results.push_back(ReferenceLoad(reference, file, sectionsAllowed));
        } else {
            m_Results.push_back(ReferenceLoad(reference, file));
        }
        std::string difference = Difference("result", result, m_Results.back());
        if (difference.empty()) {
            difference = Difference("log", m_Logged, expectedLog);
        }
        if (difference.empty()) {
            difference = Difference("last error", library.GetLastError(), reference.lastError);
        }
        if (!difference.empty()) {
            return difference;
        }
    }

    std::string difference = CompareTable("", library, reference.properties);
    if constexpr (isSectioned) {
        if (difference.empty()) {
            difference = CompareSections(library, reference);
        }
    }
    return difference;
}

std::string Escaped(std::string_view bytes)
{
    std::string escaped = "\"";
    for (const char byte : bytes) {
        const auto code = static_cast<unsigned char>(byte);
        if (byte == '\n') {
            escaped += "\\n";
        } else if (byte == '\t') {
            escaped += "\\t";
        } else if (byte == '\r') {
            escaped += "\\r";
        } else if (byte == '"' || byte == '\\') {
            escaped += '\\';
            escaped += byte;
        } else if (code < 0x20 || code >= 0x7F) {
            // Octal: unlike \x it ends after three digits, whatever follows.
            std::array<char, 5> octal{};
            std::snprintf(octal.data(), octal.size(), "\\%03o", static_cast<unsigned int>(code));
            escaped += octal.data();
        } else {
            escaped += byte;
        }
    }
    return escaped + '"';
}

} // namespace velahost_test
