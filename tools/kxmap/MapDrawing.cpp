#include "MapDrawing.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <string_view>

#include "MovieFacts.h"

namespace kxmap {
namespace {

constexpr double kWidth = 1200;
constexpr double kMargin = 40;
constexpr double kChartHeight = 420;
constexpr double kLineHeight = 17;
constexpr double kCharacter = 6.7;  // width of a character of the small text, on average

constexpr std::string_view kStyle = R"(
  svg { --bg: #ffffff; --ink: #1c2330; --soft: #5d6778; --line: #d5dae3; --pale: #eef1f6;
        --media: #dbe3ef; --index: #8a94a6; --warn: #a63d00;
        --video: #0b66b5; --audio: #d1660a; --caption: #0a8a63; --timecode: #b0428f; --other: #6b7280; }
  @media (prefers-color-scheme: dark) {
    svg { --bg: #14181f; --ink: #e8ebf1; --soft: #9aa5b6; --line: #333c4a; --pale: #1f2630;
          --media: #2a3444; --index: #76839a; --warn: #ffb38a;
          --video: #5fb0f5; --audio: #ffab5c; --caption: #45d1a4; --timecode: #f08fd0; --other: #a4adba; }
  }
  text { font: 12px system-ui, -apple-system, "Segoe UI", Roboto, "DejaVu Sans", sans-serif; fill: var(--ink); }
  .title { font-size: 24px; font-weight: 600; } .head { font-size: 16px; font-weight: 600; }
  .soft { fill: var(--soft); } .end { text-anchor: end; } .mid { text-anchor: middle; }
  .mono { font-family: ui-monospace, "DejaVu Sans Mono", Menlo, Consolas, monospace; }
  .warn { fill: var(--warn); } .grid { stroke: var(--line); } .edge { stroke: var(--bg); stroke-width: 0.5; }
  .axis { stroke: var(--soft); fill: none; }
)";

// Text

/// Length of the well-formed UTF-8 sequence at the front; 0 when there is none.
size_t SequenceLength(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text[0]);
    if (lead < 0x80) return lead >= 0x20 && lead != 0x7F ? 1 : 0;
    const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || text.size() < length) return 0;
    if (lead == 0xC2 && static_cast<unsigned char>(text[1]) < 0xA0) return 0;  // control characters
    for (size_t i = 1; i < length; ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) return 0;
    }
    const auto second = static_cast<unsigned char>(text[1]);
    const bool overlong = (lead == 0xE0 && second < 0xA0) || (lead == 0xF0 && second < 0x90);
    const bool surrogate = lead == 0xED && second >= 0xA0;
    const bool tooLarge = lead == 0xF4 && second >= 0x90;
    return overlong || surrogate || tooLarge ? 0 : length;
}

/// The text as XML content. What is not printable UTF-8 becomes a question mark; past `limit`
/// characters there are dots.
std::string Escape(std::string_view text, size_t limit = 200) {
    std::string out;
    for (size_t count = 0; !text.empty(); ++count) {
        if (count == limit) return out + "…";
        const size_t length = SequenceLength(text);
        const std::string_view character = text.substr(0, std::max<size_t>(length, 1));
        text.remove_prefix(character.size());
        if (length == 0)
            out += '?';
        else if (character == "&")
            out += "&amp;";
        else if (character == "<")
            out += "&lt;";
        else if (character == ">")
            out += "&gt;";
        else if (character == "\"")
            out += "&quot;";
        else
            out += character;
    }
    return out;
}

/// With at most this many decimals and no zeros behind them, whatever the locale.
std::string Number(double value, int decimals) {
    std::array<char, 400> text{};
    if (!std::isfinite(value)) return "0";
    const auto [end, error] = std::to_chars(text.data(), text.data() + text.size(), value,
                                            std::chars_format::fixed, decimals);
    std::string out(text.data(), error == std::errc() ? end : text.data());
    if (out.find('.') == std::string::npos) return out;
    out.erase(out.find_last_not_of('0') + 1);
    if (out.back() == '.') out.pop_back();
    return out == "-0" ? "0" : out;
}

std::string Scaled(double value, const std::array<const char*, 5>& units, int decimals) {
    size_t unit = 0;
    while (value >= 999.5 && unit + 1 < units.size()) {
        value /= 1000;
        ++unit;
    }
    return Number(value, unit == 0 ? 0 : decimals) + ' ' + units[unit];
}

constexpr std::array<const char*, 5> kUnits = {"B", "kB", "MB", "GB", "TB"};

std::string TimeText(double seconds) {
    if (seconds < 120) return Number(seconds, 3) + " s";
    const auto whole = static_cast<uint64_t>(std::min(seconds, 1e15));
    const auto two = [](uint64_t n) { return (n < 10 ? "0" : "") + std::to_string(n); };
    return std::to_string(whole / 3600) + ':' + two(whole / 60 % 60) + ':' + two(whole % 60);
}

std::string PlainCount(uint64_t count, const char* one, const char* many) {
    return std::to_string(count) + ' ' + (count == 1 ? one : many);
}

/// The step between ticks: 1, 2 or 5 times a power of ten, for about `count` ticks.
double TickStep(double range, double count) {
    const double rough = range / count;
    const double power = std::pow(10, std::floor(std::log10(rough)));
    for (const double factor : {1.0, 2.0, 5.0}) {
        if (power * factor >= rough) return power * factor;
    }
    return power * 10;
}

// Elements

class Svg {
public:
    void Rect(double x, double y, double width, double height, std::string_view attributes) {
        m_text += "<rect x='" + Number(x, 2) + "' y='" + Number(y, 2) + "' width='" +
                  Number(width, 2) + "' height='" + Number(height, 2) + "' ";
        m_text.append(attributes).append("/>\n");
    }
    void Line(double x1, double y1, double x2, double y2, std::string_view attributes) {
        m_text += "<path d='M" + Number(x1, 2) + ' ' + Number(y1, 2) + "L" + Number(x2, 2) + ' ' +
                  Number(y2, 2) + "' ";
        m_text.append(attributes).append("/>\n");
    }
    /// `text` is escaped already.
    void Text(double x, double y, std::string_view attributes, std::string_view text) {
        m_text += "<text x='" + Number(x, 2) + "' y='" + Number(y, 2) + "' ";
        m_text.append(attributes).append(">").append(text).append("</text>\n");
    }
    void Raw(std::string_view text) { m_text += text; }
    const std::string& Get() const { return m_text; }

private:
    std::string m_text;
};

// Tracks

const char* ColourOf(const Track& track) {
    if (track.handler == "vide") return "var(--video)";
    if (track.handler == "soun") return "var(--audio)";
    if (track.handler == "clcp") return "var(--caption)";
    if (track.handler == "tmcd") return "var(--timecode)";
    return "var(--other)";
}

const char* NameOf(const Track& track) {
    if (track.handler == "vide") return "video";
    if (track.handler == "soun") return "audio";
    if (track.handler == "clcp") return "captions";
    if (track.handler == "tmcd") return "timecode";
    return "track";
}

std::string LegendOf(const Track& track) {
    std::string text = std::string(NameOf(track)) + " (track " + std::to_string(track.id) + ", " +
                       Escape(FormatText(track)) +
                       "): " + PlainCount(track.samples, "sample", "samples") + " in " +
                       PlainCount(track.chunks, "chunk", "chunks") + ", " + SizeText(track.bytes) +
                       ", " + TimeText(track.seconds);
    if (track.EverySampleIsSync())
        text += "; every sample is a sync sample";
    else
        text += "; " + PlainCount(track.syncSamples, "sync sample", "sync samples");
    return text;
}

// The drawing

class Drawing {
public:
    explicit Drawing(const MovieMap& map) : m_map(map) {}

    std::string Draw();

private:
    void DrawHead();
    void DrawLegend();
    void DrawLayout();
    void DrawStrip();
    void DrawStripLabels();
    void DrawGrid();
    void DrawTrack(const Track& track, int rank);
    void DrawSyncSamples(const Track& track);
    void DrawIndex();
    void DrawRemarks();

    double YOf(uint64_t position) const {
        const auto size = static_cast<double>(std::max<uint64_t>(m_map.fileSize, 1));
        return m_chartTop + kChartHeight * (static_cast<double>(position) / size);
    }
    double XOf(double seconds) const {
        return kChartLeft + (kChartRight - kChartLeft) * (seconds / m_seconds);
    }

    static constexpr double kStripLeft = 200;
    static constexpr double kStripRight = 270;
    static constexpr double kChartLeft = 350;
    static constexpr double kChartRight = kWidth - kMargin;

    const MovieMap& m_map;
    Svg m_svg;
    double m_y = 0;
    double m_chartTop = 0;
    double m_seconds = 1;
};

void Drawing::DrawHead() {
    m_y = 58;
    m_svg.Text(kMargin, m_y, "class='title'", Escape(m_map.name, 80));
    const char* kind = m_map.brand.empty()     ? "no file type box"
                       : m_map.brand == "qt  " ? "QuickTime movie"
                                               : "MP4 file";
    m_y += 24;
    m_svg.Text(kMargin, m_y, "class='soft'",
               std::string(kind) + ", " + SizeText(m_map.fileSize) + ", " +
                   TimeText(m_map.tracks.empty() ? 0 : m_seconds) + ", " +
                   PlainCount(m_map.tracks.size(), "track", "tracks"));
}

void Drawing::DrawLegend() {
    constexpr size_t kMaxLines = 12;
    m_y += 12;
    size_t lines = 0;
    bool syncs = false;
    for (const Track& track : m_map.tracks) {
        syncs = syncs || !track.EverySampleIsSync();
        if (++lines > kMaxLines) continue;
        m_y += kLineHeight + 2;
        m_svg.Rect(kMargin, m_y - 10, 18, 11, std::string("rx='2' fill='") + ColourOf(track) + "'");
        m_svg.Text(kMargin + 26, m_y, "", LegendOf(track));
    }
    if (!syncs) return;
    m_y += kLineHeight + 2;
    m_svg.Raw("<path d='M" + Number(kMargin + 9, 1) + ' ' + Number(m_y - 10, 1) +
              "l6 6l-6 6l-6-6z' fill='var(--bg)' stroke='var(--video)' stroke-width='1.5'/>\n");
    m_svg.Text(kMargin + 26, m_y, "", "sync sample: decoding can start here");
}

void Drawing::DrawStrip() {
    for (const Box& box : m_map.boxes) {
        const double top = YOf(box.offset);
        const double height = std::max(YOf(box.offset + box.size) - top, 1.0);
        const bool media = box.type == "mdat";
        m_svg.Raw("<g><title>" + Escape(box.Name()) + " at " + std::to_string(box.offset) + ", " +
                  std::to_string(box.size) + " bytes</title>");
        m_svg.Rect(kStripLeft, top, kStripRight - kStripLeft, height,
                   media ? "fill='var(--media)'" : "fill='var(--index)'");
        m_svg.Raw("</g>\n");
    }
    m_svg.Rect(kStripLeft, m_chartTop, kStripRight - kStripLeft, kChartHeight,
               "fill='none' class='axis'");
}

/// Labels stand beside their boxes and move apart where boxes are too small for them.
void Drawing::DrawStripLabels() {
    constexpr size_t kMaxLabels = 20;
    const size_t count = std::min(kMaxLabels, m_map.boxes.size());
    std::vector<double> place(count);
    const auto middle = [this](const Box& box) {
        return (YOf(box.offset) + YOf(box.offset + box.size)) / 2;
    };
    double next = m_chartTop + 4;
    for (size_t i = 0; i < count; ++i) {
        place[i] = std::max(middle(m_map.boxes[i]), next);
        next = place[i] + kLineHeight;
    }
    double last = m_chartTop + kChartHeight + 4;
    for (size_t i = count; i-- > 0; last = place[i] - kLineHeight)
        place[i] = std::min(place[i], last);
    for (size_t i = 0; i < count; ++i) {
        const Box& box = m_map.boxes[i];
        m_svg.Line(kStripLeft - 22, place[i], kStripLeft - 2, middle(box), "class='axis'");
        m_svg.Text(kStripLeft - 28, place[i] + 4, "class='end'",
                   "<tspan class='mono' font-weight='600'>" + Escape(box.Name()) + "</tspan> " +
                       SizeText(box.size));
    }
}

void Drawing::DrawGrid() {
    const double bottom = m_chartTop + kChartHeight;
    const auto size = static_cast<double>(std::max<uint64_t>(m_map.fileSize, 1));
    const double bytes = std::max(TickStep(size, 7), 1.0);
    for (int i = 0; i * bytes <= size; ++i) {
        const double position = i * bytes;
        const double y = m_chartTop + kChartHeight * (position / size);
        m_svg.Line(kChartLeft, y, kChartRight, y, "class='grid'");
        m_svg.Text(kChartLeft - 8, y + 4, "class='soft end'", Scaled(position, kUnits, 2));
    }
    const double seconds = TickStep(m_seconds, 10);
    for (int i = 0; i * seconds <= m_seconds * 1.0001; ++i) {
        const double x = XOf(i * seconds);
        m_svg.Line(x, m_chartTop, x, bottom, "class='grid'");
        m_svg.Text(x, bottom + 18, "class='soft mid'", TimeText(i * seconds));
    }
    m_svg.Line(kChartLeft, m_chartTop, kChartLeft, bottom, "class='axis'");
    m_svg.Line(kChartLeft, bottom, kChartRight, bottom, "class='axis'");
    m_svg.Text((kChartLeft + kChartRight) / 2, bottom + 38, "class='mid'",
               "decode time from the track's first sample");
    m_svg.Text(kChartLeft, m_chartTop - 12, "",
               "chunks: where in the file (down) and when (right)");
    m_svg.Text(kStripRight, m_chartTop - 12, "class='end'", "boxes, to scale");
}

/// All chunks in one path. Where a track has so many that they melt into a line, a later track
/// (of higher rank) draws a thinner one, so that the lines before it stay visible.
void Drawing::DrawTrack(const Track& track, int rank) {
    constexpr size_t kMany = 300;
    const bool many = track.extents.size() > kMany;
    const double smallest = many ? std::max(2, 8 - 3 * rank) : 2;
    std::string chunks;
    for (const Extent& extent : track.extents) {
        const double x = XOf(extent.start);
        const double y = YOf(extent.position);
        const std::string width = Number(std::max(XOf(extent.stop) - x, smallest), 2);
        const std::string height = Number(std::max(YOf(extent.end) - y, smallest), 2);
        for (const std::string& part :
             {"M" + Number(x, 2), ' ' + Number(y, 2), "h" + width, "v" + height, "h-" + width})
            chunks += part;
        chunks += 'z';
    }
    const std::string title = "<title>" + LegendOf(track) + "</title>";
    m_svg.Raw(std::string("<path ") + (many ? "" : "class='edge' ") + "fill='" +
              std::string(ColourOf(track)) + "' d='" + chunks + "'>" + title + "</path>\n");
}

/// All sync samples in one path.
void Drawing::DrawSyncSamples(const Track& track) {
    if (track.EverySampleIsSync()) return;
    // Neighbours that would hide each other are left out.
    constexpr double kClosest = 9;
    std::string diamonds;
    double lastX = -kWidth;
    double lastY = 0;
    for (const SyncSample& sync : track.syncs) {
        if (sync.position > m_map.fileSize) continue;
        const double x = XOf(sync.time);
        const double y = YOf(sync.position);
        if (std::abs(x - lastX) < kClosest && std::abs(y - lastY) < kClosest) continue;
        diamonds += "M" + Number(x, 2) + ' ' + Number(y - 5, 2) + "l5 5l-5 5l-5-5z";
        lastX = x;
        lastY = y;
    }
    m_svg.Raw("<path fill='var(--bg)' stroke='" + std::string(ColourOf(track)) +
              "' stroke-width='1.5' d='" + diamonds + "'><title>sync samples</title></path>\n");
}

void Drawing::DrawLayout() {
    m_y += 46;
    m_svg.Text(kMargin, m_y, "class='head'", "File");
    m_chartTop = m_y + 34;
    DrawStrip();
    DrawStripLabels();
    if (m_map.tracks.empty())
        m_svg.Text((kChartLeft + kChartRight) / 2, m_chartTop + kChartHeight / 2,
                   "class='soft mid'", "no index, no tracks");
    else
        DrawGrid();
    // The track with the most bytes first, so that small chunks are not hidden.
    std::vector<const Track*> order;
    for (const Track& track : m_map.tracks)
        order.push_back(&track);
    std::stable_sort(order.begin(), order.end(),
                     [](const Track* a, const Track* b) { return a->bytes > b->bytes; });
    int rank = 0;
    for (const Track* track : order)
        DrawTrack(*track, rank++);
    for (const Track* track : order)
        DrawSyncSamples(*track);
    m_y = m_chartTop + kChartHeight + 56;
}

// The index

struct Row {
    const Box* box;
    int depth;
    std::string note;
    const char* colour;
};

class IndexColumns {
public:
    IndexColumns(const Box& moov, const std::vector<Track>& tracks)
        : m_moov(moov), m_tracks(tracks) {}

    /// Draws from `top` on and returns the lower end.
    double Draw(Svg& svg, double top);

private:
    static constexpr size_t kColumns = 3;
    static constexpr size_t kMaxRows = 400;
    static constexpr double kGap = 28;

    void Collect(const Box& box, int depth, const char* colour, std::vector<Row>& rows);
    void DrawRow(Svg& svg, const Row& row, double x, double y) const;

    double ColumnWidth() const { return (kWidth - 2 * kMargin - (kColumns - 1) * kGap) / kColumns; }

    const Box& m_moov;
    const std::vector<Track>& m_tracks;
    size_t m_rows = 0;
};

void IndexColumns::Collect(const Box& box, int depth, const char* colour, std::vector<Row>& rows) {
    if (++m_rows > kMaxRows) return;
    std::string note;
    for (const Track& track : m_tracks) {
        if (track.boxPosition != box.offset) continue;
        note = std::string(NameOf(track)) + ", track " + std::to_string(track.id);
        colour = ColourOf(track);
    }
    rows.push_back({&box, depth, note, colour});
    for (const Box& child : box.children)
        Collect(child, depth + 1, colour, rows);
}

void IndexColumns::DrawRow(Svg& svg, const Row& row, double x, double y) const {
    constexpr double kIndent = 14;
    constexpr double kSizeColumn = 74;
    const double left = x + kIndent * row.depth;
    const double share = static_cast<double>(row.box->size) /
                         static_cast<double>(std::max<uint64_t>(m_moov.size, 1));
    const double room = ColumnWidth() - kSizeColumn;
    svg.Raw("<g><title>" + Escape(row.box->Name()) + " at " + std::to_string(row.box->offset) +
            ", " + std::to_string(row.box->size) + " bytes</title>");
    svg.Rect(x, y - 12, room, kLineHeight - 2, "fill='var(--pale)' rx='2'");
    svg.Rect(x, y - 12, std::max(room * share, 1.0), kLineHeight - 2,
             std::string("rx='2' opacity='0.35' fill='") + row.colour + "'");
    std::string text =
        "<tspan class='mono' font-weight='600'>" + Escape(row.box->Name()) + "</tspan>";
    if (!row.note.empty()) text += " <tspan class='soft'>" + row.note + "</tspan>";
    svg.Text(left + 6, y, "", text);
    svg.Text(x + ColumnWidth(), y, "class='soft end'", SizeText(row.box->size));
    svg.Raw("</g>\n");
}

double IndexColumns::Draw(Svg& svg, double top) {
    std::array<double, kColumns> ends{};
    ends.fill(top);
    for (const Box& child : m_moov.children) {
        std::vector<Row> rows;
        Collect(child, 0, "var(--index)", rows);
        const auto shortest = std::min_element(ends.begin(), ends.end());
        const auto column = static_cast<double>(shortest - ends.begin());
        const double x = kMargin + column * (ColumnWidth() + kGap);
        for (const Row& row : rows) {
            *shortest += kLineHeight;
            DrawRow(svg, row, x, *shortest);
        }
        *shortest += 6;
    }
    double end = *std::max_element(ends.begin(), ends.end());
    if (m_rows > kMaxRows) {
        end += kLineHeight;
        svg.Text(kMargin, end, "class='soft'", "The index has more boxes than are drawn.");
    }
    return end;
}

void Drawing::DrawIndex() {
    const Box& moov = m_map.index;
    if (moov.size == 0) return;
    m_y += 26;
    const std::string heading = "Index: moov, " + SizeText(moov.size);
    m_svg.Text(kMargin, m_y, "class='head'", heading);
    m_svg.Text(kMargin + kCharacter * 1.5 * static_cast<double>(heading.size()), m_y,
               "class='soft'", "bars: share of the index");
    m_y = IndexColumns(moov, m_map.tracks).Draw(m_svg, m_y + 4);
}

void Drawing::DrawRemarks() {
    constexpr size_t kMaxLines = 20;
    if (m_map.remarks.empty()) return;
    m_y += 30;
    m_svg.Text(kMargin, m_y, "class='head'", "Remarks");
    for (size_t i = 0; i < std::min(kMaxLines, m_map.remarks.size()); ++i) {
        m_y += kLineHeight + 2;
        m_svg.Text(kMargin, m_y, "class='warn'", Escape(m_map.remarks[i]));
    }
}

std::string Drawing::Draw() {
    double seconds = 0;
    for (const Track& track : m_map.tracks)
        seconds = std::max(seconds, track.seconds);
    if (seconds > 0) m_seconds = seconds;
    DrawHead();
    DrawLegend();
    DrawLayout();
    DrawIndex();
    DrawRemarks();
    const std::string height = Number(m_y + kMargin, 0);
    const std::string width = Number(kWidth, 0);
    std::string out = "<svg xmlns='http://www.w3.org/2000/svg' width='" + width + "' height='" +
                      height + "' viewBox='0 0 " + width + ' ' + height +
                      "' role='img'>\n<title>Layout of " + Escape(m_map.name) +
                      "</title>\n<style>" + std::string(kStyle) +
                      "</style>\n<rect width='100%' height='100%' fill='var(--bg)'/>\n";
    return out + m_svg.Get() + "</svg>\n";
}

}  // namespace

std::string PrintableText(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        const size_t length = SequenceLength(text);
        out += length == 0 ? std::string_view("?") : text.substr(0, length);
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return out;
}

std::string SizeText(uint64_t bytes) {
    return Scaled(static_cast<double>(bytes), kUnits, 2);
}

std::string DrawMovieMap(const MovieMap& map) {
    return Drawing(map).Draw();
}

}  // namespace kxmap
