#include <gtest/gtest.h>

#include <array>
#include <vector>
#include <string>

#include "discovery/type_library.h"
#include "identity/com_identity.h"
#include "tests/support/registry_fixture.h"

using namespace MetaObj;

namespace {

const char kScriptingLibrary[] = "{420B2830-E718-11CF-893D-00A0C9054228}";
const char kStdOleLibrary[] = "{00020430-0000-0000-C000-000000000046}";

std::string NameOf(ITypeInfo* info)
{
    BSTR name = nullptr;
    if (FAILED(info->GetDocumentation(MEMBERID_NIL, &name, nullptr, nullptr, nullptr)))
        return "";
    const std::string narrow = CMetaString(name).GetNarrow();
    SysFreeString(name);
    return narrow;
}

// A class whose "TypeLib" entry names a library key of its own, both fresh.
struct ScratchLibrary {
    ScratchLibrary()
    {
        ScratchClass other;  // borrows a fresh identifier for the library
        libraryId = other.braced;
        libraryKey = "TypeLib\\" + libraryId;
        owner.WriteClass("TypeLib", nullptr, libraryId);
    }
    void Version(const std::string& version, const std::string& locale = "", const std::string& file = "")
    {
        owner.Write(libraryKey + "\\" + version, nullptr, "Library " + version);
        if (!locale.empty())
            owner.Write(libraryKey + "\\" + version + "\\" + locale + (file.empty() ? "" : "\\win32"), nullptr, file);
    }

    ScratchClass owner;
    std::string libraryId, libraryKey;
};

TEST(TypeLibraryTest, LibraryFilesAreFoundByVersionAndLocale)
{
    using Key = std::array<const char*, 3>;  // version, locale (none: ""), file (none: "")
    const struct {
        const char* label;
        std::vector<Key> keys;
        std::uint32_t version;
        bool found;
        std::string name, path;
    } rows[] = {
        {"409 before 0", {{"1.0", "0", "zero.tlb"}, {"1.0", "409", "en.tlb"}}, 0x10000, true, "Library 1.0", "en.tlb"},
        {"9 before 0", {{"1.0", "0", "zero.tlb"}, {"1.0", "9", "nine.tlb"}}, 0x10000, true, "Library 1.0", "nine.tlb"},
        {"any numeric locale", {{"1.0", "FLAGS", "x"}, {"1.0", "407", "de.tlb"}}, 0x10000, true, "Library 1.0",
         "de.tlb"},
        {"no numeric locale", {{"1.0", "FLAGS", "f"}, {"1.0", "HELPDIR", "h"}, {"1.0", "c", "c.tlb"}}, 0x10000, false,
         "Library 1.0", ""},
        {"the first numeric locale decides", {{"1.0", "7", ""}, {"1.0", "8", "eight.tlb"}}, 0x10000, false,
         "Library 1.0", ""},
        {"version 0 tries whole majors", {{"3.0", "0", "three.tlb"}}, 0, true, "Library 3.0", "three.tlb"},
        {"but no minors", {{"1.1", "0", "one.tlb"}, {"a.0", "0", "ten.tlb"}}, 0, false, "", ""},
        {"then 0.0", {{"0.0", "0", "none.tlb"}}, 0, true, "Library 0.0", "none.tlb"},
        {"hexadecimal version text", {{"1.a", "0", "ten.tlb"}}, 0x1000A, true, "Library 1.a", "ten.tlb"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        ScratchLibrary library;
        for (const Key& key : row.keys)
            library.Version(key[0], key[1], key[2]);
        std::string name, path;
        EXPECT_EQ(CCOMIdentity(library.owner.bare.c_str(), 0).FindTypeLibFile(row.version, name, path), row.found);
        EXPECT_EQ(name, row.name);
        EXPECT_EQ(path, row.path);
    }
}

TEST(TypeLibraryTest, LibraryIdsComeFromTheClassKeyOrTheAttribute)
{
    ScratchLibrary library;
    std::string text;
    const std::string attributeId = std::string(kStdOleLibrary).substr(1, 36);
    const CCOMIdentity both(("COM://" + library.owner.bare + "?TypeLib=" + attributeId).c_str(), 1);
    ASSERT_TRUE(both.GetTypeLibId(text, false, false));
    EXPECT_EQ(text, library.libraryId.substr(1, 36));  // the class key wins here

    const CCOMIdentity unknown("COM://Not.Registered", 1);
    EXPECT_TRUE(unknown.GetTypeLibId(text, true, true));
    EXPECT_EQ(text, "{}");
    GUID guid;
    EXPECT_FALSE(unknown.GetTypeLibGuid(guid, nullptr));
    EXPECT_FALSE(unknown.OpenTypeLibKey(KEY_QUERY_VALUE));

    const CCOMIdentity braced((std::string("COM://Not.Registered?TypeLib=") + kStdOleLibrary).c_str(), 1);
    EXPECT_TRUE(braced.GetTypeLibId(text, true, false));
    EXPECT_EQ(text, std::string("{") + kStdOleLibrary + "}");
    EXPECT_FALSE(braced.GetTypeLibGuid(guid, nullptr));

    const CCOMIdentity bare(("COM://Not.Registered?TypeLib=" + attributeId).c_str(), 1);
    EXPECT_TRUE(bare.GetTypeLibGuid(guid, nullptr));
}

TEST(TypeLibraryTest, CollectsTheInterfacesOfAClassOrTheInterfaceNamed)
{
    CTypeInfoList list;
    ASSERT_EQ(CollectTypeInfos("Scripting.Dictionary", list, nullptr), 1u);
    EXPECT_EQ(NameOf(list.front().Get()), "IDictionary");

    TYPEATTR* attributes = nullptr;
    ASSERT_TRUE(SUCCEEDED(list.front()->GetTypeAttr(&attributes)));
    char* iidText = nullptr;
    ASSERT_TRUE(ClassIdToText(&attributes->guid, &iidText));
    list.front()->ReleaseTypeAttr(attributes);
    CTypeInfoList direct;
    EXPECT_EQ(CollectTypeInfos(iidText, direct, kScriptingLibrary), 1u);
    delete[] iidText;
    EXPECT_EQ(NameOf(direct.front().Get()), "IDictionary");

    CTypeInfoList elsewhere;
    EXPECT_EQ(CollectTypeInfos("Scripting.Dictionary", elsewhere, kStdOleLibrary), 0u);
    EXPECT_EQ(CollectTypeInfos("Not.Registered", elsewhere, nullptr), 0u);
    EXPECT_EQ(CollectTypeInfos(nullptr, elsewhere, nullptr), 0u);
}

}  // namespace
