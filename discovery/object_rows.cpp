#include "discovery/object_rows.h"

#include <string>

#include "platform/module_state.h"
#include "resources/string_ids.h"

namespace MetaObj {

namespace {

constexpr int kLabelChars = 20;

struct ServerLabel {
    ServerKind kind;
    UINT labelId;
};

// Service and handler servers, and classes known only through their library,
// share the general label.
constexpr ServerLabel kServerLabels[] = {
    {ServerKindInproc, IDS_LABEL_INPROC_SERVER},
    {ServerKindLocal, IDS_LABEL_LOCAL_SERVER},
    {ServerKindRemote, IDS_LABEL_REMOTE_SERVER},
};

void AddRow(CObjectInfo& info, UINT labelId, const std::string& value)
{
    const CMetaString label(LoadModuleString(labelId, kLabelChars).c_str());
    info.properties.push_back(new CObjectProperty(label, CMetaString(value.c_str()), 1));
}

void AddRowIfRead(CObjectInfo& info, UINT labelId, bool read, const std::string& value)
{
    if (read && !value.empty())
        AddRow(info, labelId, value);
}

std::string BracedClassId(const std::string& classText)
{
    CLSID classId;
    char* text = nullptr;
    std::string braced;
    if (ClassIdFromText(classText.c_str(), &classId) && ClassIdToText(&classId, &text))
        braced = text;
    delete[] text;
    return braced;
}

}  // namespace

bool FillObjectInfo(CObjectInfo& info, const CCOMIdentity& identity, bool withProperties)
{
    std::string classText;
    if (!identity.GetClassIdText(classText, false))
        return false;
    info.objectKind = 1;
    info.isRegistered = identity.IsRegistered() ? 1 : 0;
    std::string location;
    ServerKind kind = ServerKindService;
    bool hasServer = false;
    if (info.isRegistered) {
        hasServer = identity.GetServerPath(location, kind);
    } else {
        // A class known only through its library still shows where that lies.
        std::string libraryName;
        identity.FindTypeLibFile(0, libraryName, location);
    }
    info.location = CMetaString(location.c_str());
    if (!withProperties)
        return true;

    AddRow(info, IDS_LABEL_CLASS_ID, BracedClassId(classText));
    std::string text;
    AddRowIfRead(info, IDS_LABEL_PROG_ID, identity.GetProgId(text), text);
    AddRowIfRead(info, IDS_LABEL_VERSION, identity.GetVersion(text), text);
    GUID libraryId;
    char* libraryText = nullptr;
    const bool hasLibrary = identity.GetTypeLibGuid(libraryId, nullptr) && ClassIdToText(&libraryId, &libraryText);
    AddRowIfRead(info, IDS_LABEL_TYPE_LIBRARY, hasLibrary, hasLibrary ? libraryText : "");
    delete[] libraryText;
    if (!info.isRegistered || hasServer) {
        UINT labelId = IDS_LABEL_SERVER_LOCATION;
        for (const ServerLabel& row : kServerLabels) {
            if (info.isRegistered && row.kind == kind)
                labelId = row.labelId;
        }
        AddRow(info, labelId, location);
    }
    AddRowIfRead(info, IDS_LABEL_THREADING_MODEL, identity.GetThreadingModel(text), text);
    return true;
}

}  // namespace MetaObj
