#include "examples/contact_sheet/report.h"

#include <cmath>

#include <nlohmann/json.hpp>

namespace sheet {

namespace {

using Json = nlohmann::ordered_json; // keeps the order of insertion, which is the reading order

constexpr const char* goodStatus = "ok";
constexpr int indent = 2;

Json describe(const Entry& entry)
{
    Json line{{"path", entry.path}};
    if (const auto* decoded = std::get_if<DecodedPicture>(&entry.outcome)) {
        line["status"] = goodStatus;
        line["width"] = decoded->fileSize.width;
        line["height"] = decoded->fileSize.height;
        return line;
    }
    const auto* failure = std::get_if<Failure>(&entry.outcome);
    line["status"] = statusWord(failure ? failure->kind : FailureKind::notDone);
    line["reason"] = failure ? failure->message : "";
    return line;
}

Json countByStatus(const Json& files)
{
    Json counts = Json::object();
    for (const Json& line : files) {
        Json& count = counts[line["status"].get<std::string>()];
        count = count.is_null() ? 1 : count.get<std::size_t>() + 1;
    }
    return counts;
}

} // namespace

std::string reportText(const std::vector<Entry>& entries, const RunFigures& figures)
{
    Json files = Json::array();
    for (const Entry& entry : entries)
        files.push_back(describe(entry));

    Json report;
    report["picture"] = figures.picture;
    report["workers"] = figures.workers;
    report["milliseconds"] = std::llround(figures.elapsed.count() * 1000);
    report["counts"] = countByStatus(files);
    report["files"] = std::move(files);
    return report.dump(indent, ' ', false, Json::error_handler_t::replace) + "\n";
}

} // namespace sheet
