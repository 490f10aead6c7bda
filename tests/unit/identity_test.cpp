#include <gtest/gtest.h>

#include <objbase.h>

#include <string>
#include <utility>
#include <vector>

#include "identity/com_identity.h"
#include "identity/object_identity.h"

using MetaObj::CObjectIdentity;

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

Pairs AttributesOf(const CObjectIdentity& identity)
{
    Pairs pairs;
    for (const auto* attribute : identity.GetAttributes())
        pairs.emplace_back(attribute->GetName(), attribute->GetValue());
    return pairs;
}

TEST(ObjectIdentityTest, ParsesTextsIntoParts)
{
    struct Row {
        const char* text;
        const char* scheme;
        const char* objectName;
        const char* baseText;
        Pairs attributes;
        bool complete;
    };
    const Row rows[] = {
        {"COM://Sample.Object", "COM", "Sample.Object", "COM://Sample.Object", {}, true},
        {"COM://Sample.Object?Host=alpha?TypeLib=", "COM", "Sample.Object", "COM://Sample.Object",
         {{"Host", "alpha"}, {"TypeLib", ""}}, true},
        {"COM://x?a=1?a=2", "COM", "x", "COM://x", {{"a", "1"}, {"a", "2"}}, true},
        {"COM://x?a=b=c", "COM", "x", "COM://x", {{"a", "b=c"}}, true},
        {"COM://x?flag?b=1", "COM", "x", "COM://x", {{"b", "1"}}, true},
        {"COM://x?=1", "COM", "x", "COM://x", {}, true},
        {"COM://x? Host = alpha ", "COM", "x", "COM://x", {{"Host", "alpha"}}, true},
        {"COM://x?  =1?\t=2", "COM", "x", "COM://x", {}, true},
        {"COM://x??a=1?", "COM", "x", "COM://x", {{"a", "1"}}, true},
        {"COM://x?a=", "COM", "x", "COM://x", {{"a", ""}}, true},
        // The first "://" decides, even inside what looks like a value.
        {"x?Host=a://b", "x?Host=a", "b", "x", {}, true},
        {"COM://", "COM", "", "COM://", {}, false},
        {"://name", "", "name", "://name", {}, false},
        {"COM:/x?a=1", "", "", "", {}, false},
        {" COM://My Object ", " COM", "My Object ", " COM://My Object ", {}, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text);
        CObjectIdentity identity;
        identity.SetText(row.text);
        EXPECT_EQ(identity.GetText(), row.text);
        EXPECT_EQ(identity.GetScheme(), row.scheme);
        EXPECT_EQ(identity.GetObjectName(), row.objectName);
        EXPECT_EQ(identity.GetBaseText(), row.baseText);
        EXPECT_EQ(AttributesOf(identity), row.attributes);
        EXPECT_EQ(identity.IsComplete(), row.complete);
    }
}

TEST(ObjectIdentityTest, AttributesAreFoundWithoutRegardToCase)
{
    CObjectIdentity identity;
    identity.SetText("COM://Sample.Object?Host=alpha?TypeLib=?a=1?A=2");
    EXPECT_EQ(identity.GetAttribute(std::string("HOST")), "alpha");
    EXPECT_EQ(identity.GetAttribute(std::string("typelib")), "");
    ASSERT_NE(identity.FindAttribute("typelib"), nullptr);
    EXPECT_EQ(identity.FindAttribute("typelib")->GetName(), "TypeLib");
    EXPECT_EQ(identity.GetAttribute(std::string("a")), "1");  // the first one wins
    EXPECT_EQ(identity.FindAttribute("Missing"), nullptr);
    // The pointer form never gives null.
    const char* missing = identity.GetAttribute("Missing");
    ASSERT_NE(missing, nullptr);
    EXPECT_STREQ(missing, "");
    EXPECT_STREQ(identity.GetAttribute("host"), "alpha");
}

TEST(ObjectIdentityTest, SetTextStartsFromAnEmptyIdentity)
{
    CObjectIdentity identity;
    identity.SetText("COM://x?a=1");
    identity.SetText("COM://y");
    EXPECT_TRUE(identity.GetAttributes().empty());
    EXPECT_EQ(identity.GetObjectName(), "y");

    for (const char* text : {static_cast<const char*>(nullptr), ""}) {
        identity.SetText("COM://x?a=1");
        identity.SetText(text);
        EXPECT_EQ(identity.GetText(), "");
        EXPECT_EQ(identity.GetScheme(), "");
        EXPECT_EQ(identity.GetObjectName(), "");
        EXPECT_TRUE(identity.GetAttributes().empty());
        EXPECT_FALSE(identity.IsComplete());
    }

    identity.SetText("no delimiter at all");
    EXPECT_EQ(identity.GetText(), "no delimiter at all");
    EXPECT_EQ(identity.GetScheme(), "");
    EXPECT_FALSE(identity.IsComplete());
}

TEST(ObjectIdentityTest, SettingPartsRebuildsTheTextAndKeepsAttributes)
{
    CObjectIdentity identity;
    identity.SetScheme("COM");
    EXPECT_EQ(identity.GetText(), "COM://");
    identity.SetObjectName("y");
    EXPECT_EQ(identity.GetText(), "COM://y");
    EXPECT_TRUE(identity.IsComplete());

    identity.SetText("COM://x? a = 1 ?flag?a=2");
    identity.SetObjectName("Other.Object");
    // Dropped pairs stay away, trimmed white space too, duplicates come back in order.
    EXPECT_EQ(identity.GetText(), "COM://Other.Object?a=1?a=2");
    EXPECT_EQ(identity.GetBaseText(), "COM://Other.Object");
    identity.SetScheme("NEW");
    EXPECT_EQ(identity.GetText(), "NEW://Other.Object?a=1?a=2");
}

TEST(ObjectIdentityTest, PartsWithDelimitersAreRefusedSilently)
{
    for (const char* refused : {"a=b", "a?b", "a://b"}) {
        SCOPED_TRACE(refused);
        CObjectIdentity identity;
        identity.SetText("COM://x?a=1");
        identity.SetObjectName(refused);
        identity.SetScheme(refused);
        EXPECT_EQ(identity.GetText(), "COM://x?a=1");
        EXPECT_EQ(identity.GetObjectName(), "x");
        EXPECT_EQ(identity.GetScheme(), "COM");
    }
}

TEST(ComIdentityTest, ConstructorsFromTexts)
{
    struct Row {
        const char* text;
        int isWhole;
        const char* identityText;
        const char* objectName;
        bool complete;
    };
    const Row rows[] = {
        {"Sample.Object", 0, "COM://Sample.Object", "Sample.Object", true},
        {"Sample?Object", 0, "COM://", "", false},  // refused name: the scheme stays
        {"Sample=Object", 0, "COM://", "", false},
        {"COM://Sample.Object?Host=alpha", 1, "COM://Sample.Object?Host=alpha", "Sample.Object", true},
        {nullptr, 1, "", "", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text ? row.text : "(null)");
        CCOMIdentity identity(row.text, row.isWhole);
        EXPECT_EQ(identity.GetText(), row.identityText);
        EXPECT_EQ(identity.GetObjectName(), row.objectName);
        EXPECT_EQ(identity.IsComplete(), row.complete);
    }
}

TEST(ComIdentityTest, ClassIdNamesAreThirtySixCharactersWithoutADot)
{
    struct Row {
        const char* name;
        bool classId;
    };
    const Row rows[] = {
        {"EE09B103-97E0-11CF-978F-00A02463E06F", true},
        {"not-a-guid-but-thirty-six-characters", true},  // the letters are not looked at
        {"{EE09B103-97E0-11CF-978F-00A02463E06F}", false},
        {"EE09B103-97E0-11CF-978F-00A02463E06", false},
        {"EE09B103.97E0-11CF-978F-00A02463E06F", false},
        {"Scripting.Dictionary", false},
        {"", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        CCOMIdentity identity(row.name, 0);
        EXPECT_EQ(identity.IsClassIdName(), row.classId);
    }
}

TEST(ComIdentityTest, ConstructorFromClassIdDropsTheBraces)
{
    // Scripting.Dictionary's class identifier.
    const CLSID classId = {0xEE09B103, 0x97E0, 0x11CF, {0x97, 0x8F, 0x00, 0xA0, 0x24, 0x63, 0xE0, 0x6F}};
    CCOMIdentity identity(classId);
    EXPECT_EQ(identity.GetText(), "COM://EE09B103-97E0-11CF-978F-00A02463E06F");
    EXPECT_EQ(identity.GetObjectName().size(), 36u);
    EXPECT_TRUE(identity.IsClassIdName());
    EXPECT_TRUE(identity.IsComplete());
}

}  // namespace
