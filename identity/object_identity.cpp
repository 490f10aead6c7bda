#include "identity/object_identity.h"

#include <cctype>
#include <cstring>

namespace MetaObj {
namespace {

const std::string kNoAttributeValue;

bool EqualNoCase(const std::string& a, const std::string& b)
{
    return _stricmp(a.c_str(), b.c_str()) == 0;
}

}  // namespace

CObjectIdentity::~CObjectIdentity()
{
    Clear();
}

void CObjectIdentity::Clear()
{
    identityText.clear();
    scheme.clear();
    objectName.clear();
    baseText.clear();
    for (CIdentityAttribute* attribute : attributes)
        delete attribute;
    attributes.clear();
}

void CObjectIdentity::SetText(const std::string& text)
{
    Clear();
    if (text.empty())
        return;
    identityText = text;
    Parse();
}

void CObjectIdentity::SetText(const char* text)
{
    if (text == nullptr) {
        Clear();
        return;
    }
    SetText(std::string(text));
}

void CObjectIdentity::SetScheme(const std::string& text)
{
    if (HasDelimiter(text))
        return;
    scheme = text;
    Rebuild();
}

void CObjectIdentity::SetScheme(const char* text)
{
    SetScheme(std::string(text != nullptr ? text : ""));
}

void CObjectIdentity::SetObjectName(const std::string& text)
{
    if (HasDelimiter(text))
        return;
    objectName = text;
    Rebuild();
}

void CObjectIdentity::SetObjectName(const char* text)
{
    SetObjectName(std::string(text != nullptr ? text : ""));
}

const std::string& CObjectIdentity::GetAttribute(const std::string& name) const
{
    const CIdentityAttribute* attribute = FindAttribute(name);
    return attribute != nullptr ? attribute->value : kNoAttributeValue;
}

const char* CObjectIdentity::GetAttribute(const char* name) const
{
    return GetAttribute(std::string(name != nullptr ? name : "")).c_str();
}

CIdentityAttribute* CObjectIdentity::FindAttribute(const std::string& name) const
{
    for (CIdentityAttribute* attribute : attributes) {
        if (EqualNoCase(attribute->name, name))
            return attribute;
    }
    return nullptr;
}

bool CObjectIdentity::Parse()
{
    const std::size_t schemeEnd = identityText.find("://");
    if (schemeEnd == std::string::npos)
        return false;
    UpdateBaseText();
    scheme = identityText.substr(0, schemeEnd);

    std::string rest = identityText.substr(schemeEnd + 3);
    std::size_t mark = rest.find('?');
    if (mark == std::string::npos) {
        objectName = rest;
        return true;
    }
    objectName = rest.substr(0, mark);
    rest.erase(0, mark + 1);

    // "?" separates attributes too; empty or nameless pairs are dropped without a word.
    for (bool more = true; more;) {
        std::string pair;
        mark = rest.find('?');
        if (mark != std::string::npos) {
            pair = rest.substr(0, mark);
            rest.erase(0, mark + 1);
        } else {
            pair = rest;
            more = false;
        }
        const std::size_t equals = pair.find('=');
        if (equals == std::string::npos)
            continue;
        const std::string name = TrimText(pair.substr(0, equals));
        if (!name.empty())
            attributes.push_back(new CIdentityAttribute(name, TrimText(pair.substr(equals + 1))));
    }
    return true;
}

void CObjectIdentity::Rebuild()
{
    identityText = scheme + "://" + objectName;
    for (const CIdentityAttribute* attribute : attributes)
        identityText += "?" + attribute->name + "=" + attribute->value;
    UpdateBaseText();
}

void CObjectIdentity::UpdateBaseText()
{
    baseText = identityText;
    const std::size_t mark = baseText.find('?');
    if (mark != std::string::npos)
        baseText.erase(mark);
}

std::string CObjectIdentity::TrimText(const std::string& text)
{
    const auto isSpace = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    std::size_t begin = 0;
    std::size_t end = text.size();
    while (begin < end && isSpace(text[begin]))
        ++begin;
    while (end > begin && isSpace(text[end - 1]))
        --end;
    return text.substr(begin, end - begin);
}

bool CObjectIdentity::HasDelimiter(const std::string& text)
{
    return text.find("://") != std::string::npos || text.find_first_of("?=") != std::string::npos;
}

}  // namespace MetaObj
