// The page's parts from top to bottom. Everything that a document names goes through htmlText, and the page
// itself forbids the browser to load anything.

#include "report_page.h"

#include "html.h"
#include "report_style.h"
#include "report_treemap.h"
#include "sizes.h"
#include "text.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace Vexel::Tool {
namespace {

std::string_view valueOf(const Summary& summary, std::string_view name) {
    const auto found = std::find_if(summary.begin(), summary.end(),
                                    [name](const auto& field) { return field.first == name; });
    return found == summary.end() ? std::string_view() : found->second;
}

// "2026-11-21 02:24"
std::string shortTime(std::string_view iso8601) {
    constexpr std::size_t kToMinutes = 16;
    std::string time(iso8601.substr(0, kToMinutes));
    std::replace(time.begin(), time.end(), 'T', ' ');
    return time;
}

class ReportPage {
public:
    ReportPage(const DocumentReport& report, const std::function<void(std::string_view)>& sink)
        : report_(report), root_(report.nodes.front()), sink_(sink) {}

    void run() {
        addHead();
        addTitle();
        addFacts();
        addState();
        addMap();
        addTable();
        addFoot();
    }

private:
    bool isPacked() const noexcept { return report_.hasPacked; }

    void addHead() {
        sink_("<!doctype html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
              "<meta name=\"viewport\" content=\"width=device-width,initial-scale=1\">\n"
              "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
              "style-src 'unsafe-inline'; script-src 'unsafe-inline'\">\n"
              "<meta name=\"color-scheme\" content=\"light dark\">\n<title>");
        sink_(htmlText(report_.file));
        sink_("</title>\n<style>");
        sink_(kReportStyle);
        sink_("</style>\n</head>\n<body>\n<main>\n");
    }

    void addTitle() {
        sink_(std::string("<header>\n<p class=\"kind\">") + formatName(report_.info.format) +
              "</p>\n<h1><bdi>" + htmlText(report_.file) + "</bdi></h1>\n");
        std::string about;
        const auto add = [&](std::string_view before, std::string_view text) {
            if (!text.empty())
                about += (about.empty() ? "" : " · ") + std::string(before) + "<b><bdi>" + htmlText(text) +
                         "</bdi></b>";
        };
        for (const auto& [name, before] : kAbout)
            add(before, valueOf(report_.summary, name));
        add("saved ", shortTime(valueOf(report_.summary, "saved")));
        if (!about.empty())
            sink_("<p class=\"about\">" + about + "</p>\n");
        sink_("</header>\n");
    }

    void addFact(const char* name, const std::string& value, const std::string& note = {}) {
        sink_(std::string("<div><dt>") + name + "</dt><dd>" + value +
              (note.empty() ? "" : " <small>" + note + "</small>") + "</dd></div>\n");
    }

    void addFacts() {
        sink_("<dl class=\"facts\">\n");
        addFact("File", humanSize(sizeOf(report_.info)));
        addFact("Contents", humanSize(root_.size));
        if (isPacked())
            addFact("Packed", humanSize(root_.packed), percentText(double(root_.packed), double(root_.size)));
        const std::size_t storages = report_.nodes.size() - 1 - root_.streams;
        addFact("Streams", std::to_string(root_.streams));
        addFact("Storages", std::to_string(storages));
        addFact("Modified", shortTime(toIso8601(report_.info.file.ftLastWriteTime)).substr(0, 10));
        sink_("</dl>\n");
    }

    void addState() {
        if (report_.faults + report_.notReadable == 0) {
            const char* const read =
                isPacked()
                    ? "Every stream was read to its end, and agrees with its checksum where it has one."
                    : "Every stream was read to its end.";
            sink_(std::string("<p class=\"state\">") +
                  (root_.streams == 0 ? "There are no streams to read." : read) +
                  " No damage was found.</p>\n");
            return;
        }
        std::string found = report_.faults > 0 ? counted(report_.faults, "fault") + " found. " : "";
        if (report_.notReadable > 0)
            found += counted(report_.notReadable, "node") +
                     " could not be read by this program, and may be sound. ";
        sink_(std::string("<div class=\"state ") + (report_.faults > 0 ? "bad" : "note") + "\">" + found +
              "<ul>\n");
        addFaults();
        sink_("</ul></div>\n");
    }

    // The table has them all.
    void addFaults() {
        constexpr std::size_t kMostShown = 20;
        std::size_t shown = 0;
        for (const ReportNode& node : report_.nodes) {
            if (node.fault.empty())
                continue;
            if (++shown > kMostShown) {
                sink_("<li>The others are in the table.</li>\n");
                return;
            }
            sink_("<li>" + htmlText(node.fault) + "</li>\n");
        }
    }

    void addPicture(const char* kind, TreemapMeasure measure, double width, double height) {
        const char* const name = measure == TreemapMeasure::Size ? "size" : "packed";
        sink_(std::string("<div class=\"map ") + kind + " " + name + "\">");
        sink_(treemapHtml(report_, measure, width, height));
        sink_("</div>\n");
    }

    void addMap() {
        sink_("<section id=\"map\">\n<div class=\"head\"><h2>What makes it big</h2>");
        if (isPacked())
            sink_("<span class=\"seg\"><label><input type=\"radio\" name=\"by\" checked>Contents</label>"
                  "<label><input type=\"radio\" name=\"by\" id=\"by-packed\">Packed</label></span>");
        sink_("</div>\n");
        if (root_.size == 0)
            sink_("<p class=\"empty\">There are no contents.</p>\n");
        for (const TreemapMeasure measure : {TreemapMeasure::Size, TreemapMeasure::Packed}) {
            if (root_.size == 0 || (measure == TreemapMeasure::Packed && !isPacked()))
                continue;
            addPicture("wide", measure, 1000, 520);
            addPicture("tall", measure, 345, 460);
        }
        sink_("</section>\n");
    }

    void addColumn(const char* name, const char* kind, const char* style) {
        sink_(std::string("<th class=\"") + style + "\" data-kind=\"" + kind + "\"><button type=\"button\">" +
              name + "</button></th>");
    }

    void addTable() {
        sink_(
            "<section>\n<div class=\"head\"><h2>Nodes</h2></div>\n<div class=\"tools\">"
            "<input type=\"search\" id=\"find\" placeholder=\"Filter by path\" aria-label=\"Filter by path\">"
            "<span class=\"seg\"><label><input type=\"radio\" name=\"kind\" value=\"\" checked>All</label>"
            "<label><input type=\"radio\" name=\"kind\" value=\"s\">Storages</label>"
            "<label><input type=\"radio\" name=\"kind\" value=\"f\">Streams</label></span>"
            "<output id=\"shown\"></output></div>\n<table>\n<thead><tr>");
        addColumn("Path", "text", "");
        addColumn("Size", "number", "n");
        if (isPacked()) {
            addColumn("Packed", "number", "n");
            addColumn("Ratio", "number", "n");
        }
        addColumn("Modified", "text", "n");
        sink_("</tr></thead>\n<tbody>\n");
        for (std::size_t i = 1; i < report_.nodes.size(); ++i)
            addRow(i);
        sink_("</tbody>\n</table>\n</section>\n");
    }

    static std::string numberCell(const char* style, unsigned long long value, const std::string& more = {}) {
        return std::string("<td class=\"") + style + "\" data-v=\"" + std::to_string(value) + "\"" + more +
               ">" + humanSize(value) + "</td>";
    }

    std::string shareOf(const ReportNode& node) const {
        std::array<char, 48> text{};
        const double whole = std::max(1.0, double(root_.size));
        std::snprintf(text.data(), text.size(), " style=\"--w:%.4f\"", double(node.size) / whole);
        return text.data();
    }

    static std::string packedCells(const ReportNode& node) {
        const unsigned long long packed = node.packed;
        const std::string ratio = percentText(double(packed), double(node.size));
        const std::string value = node.size == 0 ? "" : std::to_string(double(packed) / double(node.size));
        return numberCell("n k", packed) + "<td class=\"n\" data-v=\"" + value + "\">" + ratio + "</td>";
    }

    void addRow(std::size_t index) {
        const ReportNode& node = report_.nodes[index];
        const std::size_t name = node.path.rfind('/') + 1;
        std::string row = "<tr id=\"n" + std::to_string(index) + "\" class=\"" +
                          (node.isStorage ? "s" : "f") + "\"><td class=\"p\"><bdi>";
        if (name > 0)
            row += "<span class=\"d\">" + htmlText(node.path.substr(0, name)) + "</span>";
        row += htmlText(node.path.substr(name)) + "</bdi>";
        if (node.isStorage)
            row += "<span class=\"d\">/ " + counted(node.streams, "stream") + "</span>";
        if (!node.fault.empty())
            row += "<span class=\"fault\">" + htmlText(node.fault) + "</span>";
        row += "</td>" + numberCell("n w", node.size, shareOf(node));
        if (isPacked())
            row += packedCells(node);
        sink_(row + "<td class=\"m\" data-v=\"" + node.modified + "\">" + shortTime(node.modified) +
              "</td></tr>\n");
    }

    void addFoot() {
        FILETIME now;
        GetSystemTimeAsFileTime(&now);
        sink_("<footer>Written by vexel on " + shortTime(toIso8601(now)) +
              " UTC. Times are in UTC; 1 KB is 1024 bytes; the ratio "
              "is that of packed bytes to contents, and a storage's figures are those of all that is in "
              "it.</footer>\n</main>\n<script>");
        sink_(kReportScript);
        sink_("</script>\n</body>\n</html>\n");
    }

    static constexpr std::pair<const char*, const char*> kAbout[] = {
        {"title", ""},
        {"subject", ""},
        {"author", "by "},
        {"remark", ""},
        {"editor", "last changed by "},
        {"program", "made with "},
    };

    const DocumentReport& report_;
    const ReportNode& root_;
    const std::function<void(std::string_view)>& sink_;
};

} // namespace

void writeReportPage(const DocumentReport& report, const std::function<void(std::string_view)>& sink) {
    ReportPage(report, sink).run();
}

} // namespace Vexel::Tool
