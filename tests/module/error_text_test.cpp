// Error texts through a copy of the module that counts its heap blocks: a
// thread's map lives as long as the thread, and its end frees all of it.

#include <string>

#include "contract/handler_base.h"
#include "tests/module/module_fixture.h"

using namespace MetaObj;

namespace {

using LiveAllocationsFn = LONG (*)();
using SetErrorTextFn = void (*)(const CMetaObjectHandler*, const char*);

class ErrorTextTest : public ModuleTest {
protected:
    void SetUp() override
    {
        Load(ProgramDirectory() + "probe.dll");
        liveAllocations = reinterpret_cast<LiveAllocationsFn>(
            reinterpret_cast<void*>(GetProcAddress(module->Handle(), "ProbeLiveAllocations")));
        setErrorText = reinterpret_cast<SetErrorTextFn>(
            reinterpret_cast<void*>(GetProcAddress(module->Handle(), "ProbeSetErrorText")));
        ASSERT_NE(liveAllocations, nullptr);
        ASSERT_NE(setErrorText, nullptr);
        module->SetEnvironment(nullptr);
    }

    LiveAllocationsFn liveAllocations = nullptr;
    SetErrorTextFn setErrorText = nullptr;
};

TEST_F(ErrorTextTest, AThreadsEndFreesItsMap)
{
    CMetaObjectHandler* first = module->GetHandlerObject();
    CMetaObjectHandler* second = module->GetHandlerObject();
    struct Row {
        const char* name;
        bool touchesHandlers;
    };
    for (const Row row : {Row{"works with two handlers", true}, Row{"never meets a handler", false}}) {
        SCOPED_TRACE(row.name);
        const LONG before = liveAllocations();
        LONG during = 0;
        std::wstring firstText;
        bool secondEmpty = false;
        RunOnThread([&] {
            if (row.touchesHandlers) {
                setErrorText(first, "Could not load type library");
                secondEmpty = second->GetErrorText().IsEmpty();
                const wchar_t* text = first->GetErrorText().GetWide();
                firstText = text != nullptr ? text : L"";
            }
            during = liveAllocations();
        });
        if (row.touchesHandlers) {
            EXPECT_GT(during, before);  // the map, two entries and a text
            EXPECT_EQ(firstText, L"Could not load type library");
            EXPECT_TRUE(secondEmpty);
        } else {
            EXPECT_EQ(during, before);
        }
        EXPECT_EQ(liveAllocations(), before);
    }
    // The texts set on those threads are not seen here.
    EXPECT_TRUE(first->GetErrorText().IsEmpty());
    for (CMetaObjectHandler* handler : {first, second}) {
        handler->Release();
        module->FreeHandlerObject(handler);
    }
}

}  // namespace
