#include <gtest/gtest.h>

#include <objbase.h>

#include <string>
#include <utility>
#include <vector>

#include "identity/com_identity.h"
#include "identity/object_identity.h"

using MetaObj::CObjectIdentity;

namespace {

TEST(ObjectIdentityTest, AttributesPartsAndRefusals)
{
    CObjectIdentity identity;
    identity.SetText("COM://Sample.Object?Host=alpha?TypeLib=?a=1?A=2");
    EXPECT_EQ(identity.GetAttribute(std::string("HOST")), "alpha");  // found without regard to case
    ASSERT_NE(identity.FindAttribute("typelib"), nullptr);
    EXPECT_EQ(identity.FindAttribute("typelib")->GetName(), "TypeLib");
    EXPECT_EQ(identity.GetAttribute(std::string("a")), "1");  // the first one wins
    EXPECT_EQ(identity.FindAttribute("Missing"), nullptr);
    ASSERT_NE(identity.GetAttribute("Missing"), nullptr);  // the pointer form never gives null
    EXPECT_STREQ(identity.GetAttribute("Missing"), "");

    for (const char* text : {static_cast<const char*>(nullptr), "", "COM://y"}) {
        identity.SetText("COM://x?a=1");
        identity.SetText(text);
        EXPECT_EQ(identity.GetText(), text ? text : "");
        EXPECT_TRUE(identity.GetAttributes().empty());
    }

    identity.SetText("COM://x? a = 1 ?flag?a=2");
    identity.SetObjectName("Other.Object");
    EXPECT_EQ(identity.GetText(), "COM://Other.Object?a=1?a=2");
    identity.SetScheme("NEW");
    EXPECT_EQ(identity.GetText(), "NEW://Other.Object?a=1?a=2");
    EXPECT_EQ(identity.GetBaseText(), "NEW://Other.Object");

    for (const char* refused : {"a=b", "a?b", "a://b"}) {  // parts with delimiters are refused silently
        SCOPED_TRACE(refused);
        identity.SetObjectName(refused);
        identity.SetScheme(refused);
        EXPECT_EQ(identity.GetText(), "NEW://Other.Object?a=1?a=2");
    }
}

TEST(ComIdentityTest, ConstructorsAndClassIdNames)
{
    const struct { const char* text; int isWhole; const char* identityText; bool complete, classId; } rows[] = {
        {"Sample.Object", 0, "COM://Sample.Object", true, false},
        {"Sample?Object", 0, "COM://", false, false},  // refused name: the scheme stays
        {"COM://Sample.Object?Host=alpha", 1, "COM://Sample.Object?Host=alpha", true, false},
        {nullptr, 1, "", false, false},
        {"EE09B103-97E0-11CF-978F-00A02463E06F", 0, "COM://EE09B103-97E0-11CF-978F-00A02463E06F", true, true},
        {"not-a-guid-but-thirty-six-characters", 0, "COM://not-a-guid-but-thirty-six-characters", true, true},
        {"{EE09B103-97E0-11CF-978F-00A02463E06F}", 0, "COM://{EE09B103-97E0-11CF-978F-00A02463E06F}", true, false},
        {"EE09B103-97E0-11CF-978F-00A02463E06", 0, "COM://EE09B103-97E0-11CF-978F-00A02463E06", true, false},
        {"EE09B103.97E0-11CF-978F-00A02463E06F", 0, "COM://EE09B103.97E0-11CF-978F-00A02463E06F", true, false},
        {"", 0, "COM://", false, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text ? row.text : "(null)");
        CCOMIdentity identity(row.text, row.isWhole);
        EXPECT_EQ(identity.GetText(), row.identityText);
        EXPECT_EQ(identity.IsComplete(), row.complete);
        EXPECT_EQ(identity.IsClassIdName(), row.classId);
    }
    const CLSID classId = {0xEE09B103, 0x97E0, 0x11CF, {0x97, 0x8F, 0x00, 0xA0, 0x24, 0x63, 0xE0, 0x6F}};
    EXPECT_EQ(CCOMIdentity(classId).GetText(), "COM://EE09B103-97E0-11CF-978F-00A02463E06F");
}

}  // namespace
