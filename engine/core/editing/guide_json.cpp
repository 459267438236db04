// Guide data JSON, the reader (the writer is in guide_json_writer.cpp). Grooms hold tens of
// thousands of guides, so the reader never puts the guide array through one JSON document when it
// can help it: a first scan splits the text at the guide array's elements without parsing, the rest
// of the document is parsed alone, and the elements are read in parallel by a small reader made for
// them (both in guide_json_split.cpp). Whatever that path can't take (an escape in a string, a key
// it doesn't know, a second "guides" key) sends the whole text through the JSON library instead;
// both paths end in the same checks and give the same hierarchy.

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>
#include <unordered_map>

#include <nlohmann/json.hpp>

#include "base/document.h"
#include "base/parallel.h"
#include "editing/guide_hierarchy.h"
#include "editing/guide_json_internal.h"

namespace velmorin {

using Json = nlohmann::ordered_json;

namespace {

using guide_json_internal::bad;
using guide_json_internal::blankText;
using guide_json_internal::clampedCount;
using guide_json_internal::ElementReader;
using guide_json_internal::kMaxPointCount;
using guide_json_internal::kMaxSegments;
using guide_json_internal::NotSplit;
using guide_json_internal::numberOf;
using guide_json_internal::Split;
using guide_json_internal::splitGuideArray;
using guide_json_internal::toFace;
using guide_json_internal::toFloat;
using guide_json_internal::toUnsigned;

constexpr std::size_t kReadGrain = 4;      // guide elements per parallel chunk
constexpr std::size_t kFinishGrain = 256;  // guides per chunk of the checks after reading
constexpr std::string_view kRetiredRound = "crescent";

// --- The whole-parse path: one guide from a JSON value -----------------------------------------

std::string guideName(const Guide& g) {
    return g.id != 0 ? "guide " + std::to_string(g.id) : "a guide";
}

float jsonFloat(const Json& json, const Guide& g, std::string_view key) {
    float out = 0.0f;
    if (!json.is_number() || !toFloat(numberOf(json), out))
        bad(guideName(g) + ": \"" + std::string(key) + "\" holds a value that is not a number");
    return out;
}

Vec3f jsonVector(const Json& json, const Guide& g, std::string_view key) {
    if (!json.is_array() || json.size() != 3)
        bad(guideName(g) + ": \"" + std::string(key) + "\" must be [x, y, z]");
    return {jsonFloat(json[0], g, key), jsonFloat(json[1], g, key), jsonFloat(json[2], g, key)};
}

std::vector<Vec3f> jsonFlat(const Json& json, const Guide& g, std::string_view key) {
    if (!json.is_array()) bad(guideName(g) + ": \"" + std::string(key) + "\" must be a list");
    if (json.size() % 3 != 0) bad("point array length is not a multiple of 3");
    std::vector<Vec3f> out(json.size() / 3);
    for (std::size_t i = 0; i < out.size(); ++i) {
        out[i] = {jsonFloat(json[3 * i], g, key), jsonFloat(json[3 * i + 1], g, key),
                  jsonFloat(json[3 * i + 2], g, key)};
    }
    return out;
}

bool jsonBool(const Json& json, const Guide& g, std::string_view key) {
    if (!json.is_boolean())
        bad(guideName(g) + ": \"" + std::string(key) + "\" must be true or false");
    return json.get<bool>();
}

void guideFromJson(const Json& json, Guide& g, std::string_view& shapeName, bool& hasUpLocal) {
    if (!json.is_object()) bad("each guide must be a JSON object");
    auto required = [&](const char* key) -> const Json& {
        auto found = json.find(key);
        if (found == json.end()) bad(guideName(g) + " has no \"" + key + "\"");
        return *found;
    };
    std::uint64_t value = 0;
    const Json& id = required("id");
    if (!id.is_number() ||
        !toUnsigned(numberOf(id), std::numeric_limits<std::uint64_t>::max(), value) || value == 0) {
        bad("guide ids are whole numbers from 1; found " + id.dump());
    }
    g.id = value;
    const Json& group = required("group");
    if (!group.is_number() ||
        !toUnsigned(numberOf(group), std::numeric_limits<std::uint32_t>::max(), value)) {
        bad(guideName(g) + ": \"group\" must be a group id");
    }
    g.group = static_cast<std::uint32_t>(value);
    const Json& root = required("root");
    if (!root.is_array() || root.size() != 3 || !root[0].is_number() ||
        !toFace(numberOf(root[0]), g.root.face)) {
        bad(guideName(g) + ": \"root\" must be [face, u, v]");
    }
    g.root.u = jsonFloat(root[1], g, "root");
    g.root.v = jsonFloat(root[2], g, "root");
    g.frameUp = jsonVector(required("frameUp"), g, "frameUp");

    if (auto found = json.find("tube"); found != json.end()) {
        if (!found->is_object()) throw std::invalid_argument("tube: a JSON object");
        if (auto shape = found->find("shape"); shape != found->end()) {
            if (!shape->is_string()) throw std::invalid_argument("tube: shape is a name");
            shapeName = shape->get_ref<const std::string&>();
        }
        readTubeCurves(*found, g.tube);
    }
    if (auto found = json.find("parent"); found != json.end()) {
        if (!found->is_number() ||
            !toUnsigned(numberOf(*found), std::numeric_limits<std::uint64_t>::max(), value)) {
            bad(guideName(g) + ": \"parent\" must be a guide id");
        }
        g.parent = value;
    }
    if (auto found = json.find("locked"); found != json.end())
        g.locked = jsonBool(*found, g, "locked");
    if (auto found = json.find("ownSegments"); found != json.end())
        g.ownSegments = jsonBool(*found, g, "ownSegments");
    if (auto found = json.find("attributes"); found != json.end()) {
        if (!found->is_object()) bad(guideName(g) + ": \"attributes\" must be an object");
        for (const auto& [name, entry] : found->items())
            g.attributes[name] = jsonFloat(entry, g, name);
    }
    if (auto found = json.find("pointAttributes"); found != json.end()) {
        if (!found->is_object()) bad(guideName(g) + ": \"pointAttributes\" must be an object");
        for (const auto& [name, entry] : found->items()) {
            if (!entry.is_array()) bad(guideName(g) + ": \"" + name + "\" must be a list");
            std::vector<float>& layer = g.pointAttributes[name];
            layer.clear();
            for (const Json& v : entry)
                layer.push_back(jsonFloat(v, g, name));
        }
    }
    if (auto found = json.find("offsets"); found != json.end())
        g.offsets = jsonFlat(*found, g, "offsets");
    if (auto found = json.find("pointCount"); found != json.end()) {
        if (!found->is_number()) bad(guideName(g) + ": \"pointCount\" must be a number");
        g.pointCount = clampedCount(numberOf(*found), kMaxPointCount);
    }
    if (auto found = json.find("points"); found != json.end())
        g.points = jsonFlat(*found, g, "points");
    if (auto found = json.find("rootLocal"); found != json.end())
        g.rootLocal = jsonFlat(*found, g, "rootLocal");
    if (auto found = json.find("frameUpLocal"); found != json.end()) {
        g.frameUpLocal = jsonVector(*found, g, "frameUpLocal");
        hasUpLocal = true;
    }
}

// Grows the list to `count` guides, touching the new storage's pages from all threads first: a
// million guides are hundreds of megabytes, and the first touch of a page (the system's zero fill)
// would otherwise fall on one thread while the list is built.
void resizeTouchingInParallel(std::vector<Guide>& guides, std::size_t count) {
    if (count <= guides.size()) return;
    guides.reserve(count);
    constexpr std::size_t kPage = 4096;
    unsigned char* storage = reinterpret_cast<unsigned char*>(guides.data() + guides.size());
    const std::size_t bytes = (count - guides.size()) * sizeof(Guide);
    parallelRange(0, (bytes + kPage - 1) / kPage, 256, [&](std::size_t begin, std::size_t end) {
        for (std::size_t page = begin; page < end; ++page)
            storage[page * kPage] = 0;
    });
    guides.resize(count);
}

constexpr DocumentFormat kGuideData{
    .kind = "guide data",
    .version = kGuideDataVersion,
    .invalidJson = "invalid guide data: ",
    .notAnObject = "invalid guide data: guide data must be a JSON object"};

}  // namespace

// --- Reading -----------------------------------------------------------------------------------

class GuideDataReader {
  public:
    static GuideHierarchy read(std::string_view text, GuideReadMode mode, bool* usedSplitScan) {
        if (usedSplitScan) *usedSplitScan = false;
        if (isBlankDocument(text)) return {};
        try {
            Json header;
            std::vector<Guide> guides;
            std::vector<std::string_view> shapeNames;
            std::vector<char> upLocal;
            bool split = false;
            if (mode != GuideReadMode::WholeParse) {
                try {
                    split = readSplit(text, header, guides, shapeNames, upLocal);
                } catch (const NotSplit&) {
                } catch (const std::exception&) {
                }
                if (!split) {
                    if (mode == GuideReadMode::SplitOnly) bad("not split");
                    guides.clear();
                    shapeNames.clear();
                    upLocal.clear();
                }
            }
            if (!split) {
                // Not blank, so there is a document.
                header = *openDocument(text, kGuideData);
                if (auto found = header.find("guides"); found != header.end()) {
                    if (!found->is_array()) bad("\"guides\" must be a list of guides");
                    const Json& list = *found;
                    guides.resize(list.size());
                    shapeNames.resize(list.size());
                    upLocal.resize(list.size());
                    for (std::size_t i = 0; i < list.size(); ++i) {
                        bool hasUpLocal = false;
                        guideFromJson(list[i], guides[i], shapeNames[i], hasUpLocal);
                        upLocal[i] = hasUpLocal;
                    }
                }
            }
            if (usedSplitScan) *usedSplitScan = split;
            return assemble(header, std::move(guides), shapeNames, upLocal);
        } catch (const SchemaError&) {
            throw;
        } catch (const std::exception& error) {
            throw SchemaError(std::string("invalid guide data: ") + error.what());
        }
    }

  private:
    static bool readSplit(std::string_view text, Json& header, std::vector<Guide>& guides,
                          std::vector<std::string_view>& shapeNames, std::vector<char>& upLocal) {
        Split split;
        if (!splitGuideArray(text, split)) return false;
        std::string rest;
        rest.reserve(split.open + 2 + (text.size() - split.close - 1));
        rest.append(text.substr(0, split.open));
        rest.append("[]");
        rest.append(text.substr(split.close + 1));
        // A fault here sends the text through the whole parse, which words it.
        header = *openDocument(rest, kGuideData);
        // Another spelling of the key (an escape in it) would hold guides the scan did not see.
        auto found = header.find("guides");
        if (found == header.end() || !found->is_array() || !found->empty()) return false;

        const std::size_t n = split.elements.size();
        resizeTouchingInParallel(guides, n);
        shapeNames.resize(n);
        upLocal.assign(n, 0);
        parallelRange(0, n, kReadGrain, [&](std::size_t begin, std::size_t end) {
            for (std::size_t i = begin; i < end; ++i) {
                const auto [first, last] = split.elements[i];
                bool hasUpLocal = false;
                ElementReader(text.substr(first, last - first))
                    .read(guides[i], shapeNames[i], hasUpLocal);
                upLocal[i] = hasUpLocal;
            }
        });
        return true;
    }

    // The checks and bookkeeping both paths share, from the header and the guides read.
    static GuideHierarchy assemble(const Json& header, std::vector<Guide> guides,
                                   const std::vector<std::string_view>& shapeNames,
                                   const std::vector<char>& upLocal) {
        GuideHierarchy h;
        if (auto found = header.find("scalpTopology"); found != header.end()) {
            if (!found->is_number() ||
                !toUnsigned(numberOf(*found), std::numeric_limits<std::uint64_t>::max(),
                            h.scalpTopology_)) {
                bad("\"scalpTopology\" must be a whole number");
            }
        }
        readGroups(header, h);
        readShapes(header, h);

        h.guides_ = std::move(guides);
        const std::size_t n = h.guides_.size();
        if (h.index_.assign(h.guides_) != 0) {
            // Which of several shared ids the parallel index meets first varies: name the first
            // one in the data's order.
            GuideIdIndex seen;
            for (std::size_t i = 0; i < n; ++i)
                if (!seen.insert(h.guides_[i].id, static_cast<std::uint32_t>(i)))
                    bad("guide " + std::to_string(h.guides_[i].id) + " appears twice");
        }

        // Per guide, in parallel: its tube shape by name (built-in, the retired one, the
        // library's, or missing), what it must not carry dropped, and the first problem found.
        enum Problem : std::uint8_t { kFine, kNoGroup, kFollowsItself, kNoParent, kNoUpLocal };
        std::unordered_map<std::uint32_t, std::uint32_t> groupParent;
        for (const GuideGroup& group : h.groups_)
            groupParent.emplace(group.id, group.parent);
        std::vector<std::uint8_t> problems(n, kFine), missingShape(n, 0);
        std::atomic<std::uint64_t> highest{0};
        parallelRange(0, n, kFinishGrain, [&](std::size_t begin, std::size_t end) {
            std::uint64_t top = 0;
            for (std::size_t i = begin; i < end; ++i) {
                Guide& g = h.guides_[i];
                top = std::max(top, g.id);
                const std::string_view name = shapeNames[i];
                if (!name.empty() && !tubeShapeFromName(name, g.tube.shape) &&
                    name != kRetiredRound) {
                    auto shape = h.tubeShapes_.find(name);
                    if (shape != h.tubeShapes_.end()) {
                        g.tube.custom = shape->second;
                    } else {
                        missingShape[i] = 1;
                    }
                }
                if (groupParent.count(g.group) == 0) {
                    problems[i] = kNoGroup;
                } else if (g.parent == g.id) {
                    problems[i] = kFollowsItself;
                } else if (g.parent != 0 && !h.index_.contains(g.parent)) {
                    problems[i] = kNoParent;
                } else if (!g.rootLocal.empty() && !upLocal[i]) {
                    problems[i] = kNoUpLocal;
                }
                if (g.parent == 0) g.locked = false;
                if (g.parent == 0 || g.locked) {
                    g.offsets.clear();
                    g.pointCount = 0;
                } else {
                    g.rootLocal.clear();
                }
                g.needsUpRefresh = true;
            }
            for (std::uint64_t seen = highest.load(); seen < top;)
                highest.compare_exchange_weak(seen, top);
        });
        for (std::size_t i = 0; i < n; ++i) {
            if (problems[i] == kFine) continue;
            const Guide& g = h.guides_[i];
            const std::string guide = "guide " + std::to_string(g.id);
            switch (problems[i]) {
                case kNoGroup:
                    bad(guide + " is in group " + std::to_string(g.group) +
                        ", which the data does not hold");
                case kFollowsItself:
                    bad(guide + " follows itself");
                case kNoParent:
                    bad(guide + " follows guide " + std::to_string(g.parent) +
                        ", which the data does not hold");
                default:
                    bad(guide + " has \"rootLocal\" without \"frameUpLocal\"");
            }
        }
        h.nextGuideId_ = highest.load() + 1;

        std::map<std::string, std::size_t, std::less<>> missing;
        for (std::size_t i = 0; i < n; ++i)
            if (missingShape[i]) ++missing[std::string(shapeNames[i])];
        for (const auto& [name, count] : missing) {
            h.loadWarnings_.push_back(
                "tube shape '" + name +
                "' is not in the groom's shape library: " + std::to_string(count) +
                (count == 1 ? " guide" : " guides") + " taking it loaded round");
        }
        return h;
    }

    static void readGroups(const Json& header, GuideHierarchy& h) {
        auto found = header.find("groups");
        if (found == header.end()) return;
        if (!found->is_array()) bad("\"groups\" must be a list of groups");
        std::uint32_t highest = 0;
        for (const Json& entry : *found) {
            if (!entry.is_object()) bad("each group must be a JSON object");
            GuideGroup group;
            std::uint64_t value = 0;
            auto id = entry.find("id");
            if (id == entry.end() || !id->is_number() ||
                !toUnsigned(numberOf(*id), std::numeric_limits<std::uint32_t>::max(), value) ||
                value == 0) {
                bad("each group needs an \"id\", a whole number from 1");
            }
            group.id = static_cast<std::uint32_t>(value);
            auto name = entry.find("name");
            if (name == entry.end() || !name->is_string() ||
                name->get_ref<const std::string&>().empty())
                bad("group " + std::to_string(group.id) + " needs a \"name\"");
            group.name = name->get<std::string>();
            if (auto parent = entry.find("parent"); parent != entry.end()) {
                if (!parent->is_number() ||
                    !toUnsigned(numberOf(*parent), std::numeric_limits<std::uint32_t>::max(),
                                value)) {
                    bad("group " + std::to_string(group.id) + ": \"parent\" must be a group id");
                }
                group.parent = static_cast<std::uint32_t>(value);
            }
            if (auto segments = entry.find("segments"); segments != entry.end()) {
                if (!segments->is_number())
                    bad("group " + std::to_string(group.id) + ": \"segments\" must be a number");
                group.segments = clampedCount(numberOf(*segments), kMaxSegments);
            }
            if (h.findGroup(group.id)) bad("group " + std::to_string(group.id) + " appears twice");
            if (h.findGroup(group.name)) bad("a guide group named '" + group.name + "' exists");
            highest = std::max(highest, group.id);
            h.groups_.push_back(std::move(group));
        }
        for (const GuideGroup& group : h.groups_) {
            if (group.parent != 0 && !h.findGroup(group.parent)) {
                bad("group " + std::to_string(group.id) + " has parent group " +
                    std::to_string(group.parent) + ", which the data does not hold");
            }
        }
        h.nextGroupId_ = highest + 1;
    }

    static void readShapes(const Json& header, GuideHierarchy& h) {
        auto found = header.find("tubeShapes");
        if (found == header.end()) return;
        if (!found->is_array()) bad("\"tubeShapes\" must be a list of shapes");
        for (const Json& entry : *found) {
            if (!entry.is_object()) bad("each tube shape must be a JSON object");
            auto name = entry.find("name");
            if (name == entry.end() || !name->is_string()) bad("each tube shape needs a \"name\"");
            const std::string& shapeName = name->get_ref<const std::string&>();
            if (h.tubeShapes_.count(shapeName) != 0)
                bad("a tube shape named '" + shapeName + "' exists");
            h.tubeShapes_.emplace(shapeName, parseCustomTubeShape(shapeName, entry));
        }
    }
};

GuideHierarchy GuideHierarchy::fromJson(std::string_view text, GuideReadMode mode,
                                        bool* usedSplitScan) {
    return GuideDataReader::read(text, mode, usedSplitScan);
}

}  // namespace velmorin
