#pragma once
// An identity string, "SCHEME://OBJECT?Name=Value?Name=Value", held whole and split.
// The host is handed pointers to these objects, so field order and the single
// virtual destructor of each class are shared with it.

#include <list>
#include <string>

namespace MetaObj {

class CIdentityAttribute {
public:
    CIdentityAttribute(const std::string& name, const std::string& value) : name(name), value(value) {}
    virtual ~CIdentityAttribute() = default;

    const std::string& GetName() const { return name; }
    const std::string& GetValue() const { return value; }

    std::string name;
    std::string value;
};

class CObjectIdentity {
public:
    CObjectIdentity() = default;
    virtual ~CObjectIdentity();

    // Owns its attributes: copying would share them.
    CObjectIdentity(const CObjectIdentity&) = delete;
    CObjectIdentity& operator=(const CObjectIdentity&) = delete;

    void Clear();
    void SetText(const std::string& text);
    void SetText(const char* text);  // null clears
    // Texts holding "://", "?" or "=" are refused silently.
    void SetScheme(const std::string& text);
    void SetScheme(const char* text);
    void SetObjectName(const std::string& text);
    void SetObjectName(const char* text);

    // A missing attribute reads as an empty text; names are matched without regard to case.
    const std::string& GetAttribute(const std::string& name) const;
    const char* GetAttribute(const char* name) const;
    CIdentityAttribute* FindAttribute(const std::string& name) const;

    bool IsComplete() const { return !identityText.empty() && !scheme.empty() && !objectName.empty(); }
    const std::string& GetText() const { return identityText; }
    const std::string& GetScheme() const { return scheme; }
    const std::string& GetObjectName() const { return objectName; }
    const std::string& GetBaseText() const { return baseText; }
    const std::list<CIdentityAttribute*>& GetAttributes() const { return attributes; }

    std::string identityText;
    std::string scheme;
    std::string objectName;
    std::string baseText;
    std::list<CIdentityAttribute*> attributes;

private:
    bool Parse();
    void Rebuild();
    void UpdateBaseText();
    static std::string TrimText(const std::string& text);
    static bool HasDelimiter(const std::string& text);
};

}  // namespace MetaObj
