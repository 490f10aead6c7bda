#include "host/item_text.h"

#include <cstdint>
#include <vector>

namespace Tool {

using nlohmann::json;

namespace {

bool IsTextual(const json& item)
{
    const std::string type = item.value("metaType", "");
    return type == "String" || type == "Char" || type == "Date" || type == "Currency";
}

// Line breaks and tabs are spelt out, so that every value stays on its row.
std::string OneLine(const std::string& text)
{
    std::string line;
    for (const char c : text) {
        if (c == '\r')
            line += "\\r";
        else if (c == '\n')
            line += "\\n";
        else if (c == '\t')
            line += "\\t";
        else
            line += c;
    }
    return line;
}

// Elements come in the order of the walk, the last dimension fastest, so the
// elements of one index of dimension d are a run of the product of the later counts.
std::string NestedElements(const json& elements, const std::vector<std::int64_t>& counts, std::size_t dimension,
                           std::size_t first)
{
    std::size_t stride = 1;
    for (std::size_t later = dimension + 1; later < counts.size(); ++later)
        stride *= static_cast<std::size_t>(counts[later]);
    std::string text = "[";
    for (std::int64_t index = 0; index < counts[dimension]; ++index) {
        if (index > 0)
            text += ", ";
        const std::size_t at = first + static_cast<std::size_t>(index) * stride;
        text += dimension + 1 == counts.size() ? ValueText(elements[at])
                                               : NestedElements(elements, counts, dimension + 1, at);
    }
    return text + "]";
}

// "(0 to 1, 5 to 7) [[a, b, c], [d, e, f]]". A shape whose element count the
// table doesn't match (a size left open) is shown flat.
std::string ArrayText(const json& item)
{
    const json& elements = item["elements"];
    std::vector<std::int64_t> counts;
    std::string shape;
    std::int64_t product = 1;
    for (const json& bound : item.value("bounds", json::array())) {
        const std::int64_t lower = bound["lower"].get<std::int64_t>();
        const std::int64_t count = bound["count"].get<std::int64_t>();
        const std::string upper = count < 0 ? "?" : std::to_string(lower + count - 1);
        shape += (shape.empty() ? "(" : ", ") + std::to_string(lower) + " to " + upper;
        counts.push_back(count);
        product *= count;
    }
    shape += shape.empty() ? "" : ") ";
    const bool fits = !counts.empty() && product >= 0 && static_cast<std::size_t>(product) == elements.size();
    if (fits && product > 0)
        return shape + NestedElements(elements, counts, 0, 0);
    std::string text = "[";
    for (const json& element : elements)
        text += (text.size() > 1 ? ", " : "") + ValueText(element);
    return shape + text + "]";
}

}  // namespace

std::string ValueText(const json& item)
{
    if (item.is_null())
        return "none";
    if (item.contains("elements"))
        return ArrayText(item);
    if (item.contains("members")) {
        std::string text = "{";
        for (const json& member : item["members"])
            text += (text.size() > 1 ? ", " : "") + member.value("name", "") + ": " + ValueText(member);
        return text + "}";
    }
    std::string text = item.value("text", "");
    if (IsTextual(item))
        text = "\"" + OneLine(text) + "\"";
    if (item.contains("enumName"))
        text += " (" + item["enumName"].get<std::string>() + ")";
    return text;
}

std::string ItemText(const json& item)
{
    if (item.is_null())
        return "none";
    std::string type = item["metaType"].get<std::string>() + ", " + item["class"].get<std::string>();
    if (!item["signature"].get<std::string>().empty())
        type += ", " + item["signature"].get<std::string>();
    return ValueText(item) + "  [" + type + "]";
}

}  // namespace Tool
