#include <VelaHost_Utility/Properties.h>

#include "PropertyLineReader.h"
#include "SoughtName.h"

#include <internal/ThrowSite.h>

#include <memory>
#include <string_view>

namespace VelaHost_Utility {

namespace {

constexpr Exception::Context Site(unsigned int line)
{
    return ThrowSite("Properties", line);
}

constexpr PropertyLineRules s_FlatRules{
    .numberRange = NumberRange::Signed,
    .missingSignText = "Invalid syntax (missing = sign)",
    .unreadableSite = Site(155),
    .nulSite = Site(156),
    .missingSignSite = Site(161),
    .missingQuoteSite = Site(176),
    .afterQuoteSite = Site(182),
    .badNumberSite = Site(214),
};
constexpr Exception::Context s_DuplicateStringSite = Site(270);
constexpr Exception::Context s_DuplicateUIntSite = Site(284);

void Release(Property* property)
{
    if (property->GetType() == Property::StringType) {
        delete static_cast<StringProperty*>(property);
    } else {
        delete static_cast<UIntProperty*>(property);
    }
}

} // namespace

PropertiesException::~PropertiesException() = default;

Properties::Properties() = default;

Properties::~Properties()
{
    Clear();
}

void Properties::Clear()
{
    for (auto place = m_Properties.begin(); place != m_Properties.end();) {
        Release(place->second);
        place = m_Properties.erase(place);
    }
}

Property* Properties::GetProperty(const char* name, Property::Type type)
{
    const auto found = m_Properties.find(SoughtName(name));
    if (found == m_Properties.end()) {
        return nullptr;
    }
    Property* property = found->second;
    return type == Property::AnyType || type == property->GetType() ? property : nullptr;
}

UIntProperty* Properties::GetUIntProperty(const char* name)
{
    return static_cast<UIntProperty*>(GetProperty(name, Property::UIntType));
}

StringProperty* Properties::GetStringProperty(const char* name)
{
    return static_cast<StringProperty*>(GetProperty(name, Property::StringType));
}

UIntProperty* Properties::AddProperty(const char* name, unsigned int value)
{
    return Add<UIntProperty>(name, value, s_DuplicateUIntSite);
}

StringProperty* Properties::AddProperty(const char* name, const char* value)
{
    return Add<StringProperty>(name, value, s_DuplicateStringSite);
}

template <typename P, typename Value>
P* Properties::Add(const char* name, Value value, const Exception::Context& duplicateSite)
{
    const std::string_view key(name);
    const auto place = m_Properties.lower_bound(SoughtName(key));
    if (place != m_Properties.end() && place->first == key) {
        SetLastError("Property multiply defined", -1);
        throw PropertiesException(duplicateSite);
    }
    auto property = std::make_unique<P>(value);
    m_Properties.emplace_hint(place, key, property.get());
    return property.release();
}

void Properties::Load(std::istream& in)
{
    PropertyLineReader reader(in, *this, s_FlatRules);
    while (reader.NextLine()) {
        reader.AddPropertyTo(*this);
    }
    SetLastError(nullptr, -1);
}

void Properties::SetLastError(const char* text, int line)
{
    // Composed apart: `text` may be the last error itself.
    std::string message = text != nullptr || line < 0 ? "" : m_LastError;
    if (text != nullptr) {
        message += text;
    }
    if (line >= 0) {
        message += " at line " + std::to_string(line);
    }
    m_LastError.swap(message);
}

unsigned int GetUIntPropertyValue(Properties& store, const char* name, unsigned int defaultValue)
{
    const UIntProperty* property = store.GetUIntProperty(name);
    return property != nullptr ? property->GetValue() : defaultValue;
}

const std::string& GetStringPropertyValue(Properties& store, const char* name,
                                          const std::string& defaultValue)
{
    const StringProperty* property = store.GetStringProperty(name);
    return property != nullptr ? property->GetValue() : defaultValue;
}

} // namespace VelaHost_Utility
