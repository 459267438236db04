#include "graph/registry.h"

#include <algorithm>
#include <stdexcept>

#include "graph/errors.h"
#include "graph/param_json.h"

namespace velmorin {
namespace {

using Json = nlohmann::ordered_json;

Json portJson(const PortSpec& port, bool isInput) {
    Json out = Json::object();
    out["name"] = port.name;
    out["type"] = portTypeName(port.type);
    if (isInput) out["optional"] = port.optional;
    if (port.type == PortType::Value) out["valueKind"] = valueKindName(port.valueKind);
    return out;
}

bool isLower(char c) {
    return c >= 'a' && c <= 'z';
}
bool isUpper(char c) {
    return c >= 'A' && c <= 'Z';
}

}  // namespace

const std::array<Category, 13> kCategories = {{
    {"source", "Sources"},
    {"grow", "Grow"},
    {"shape", "Shape"},
    {"deform", "Deform"},
    {"collide", "Collide"},
    {"look", "Look"},
    {"motion", "Motion"},
    {"feathers", "Feathers"},
    {"color", "Color"},
    {"convert", "Convert"},
    {"field", "Fields & Curves"},
    {"utility", "Utility"},
    {"games", "Games"},
}};

const std::vector<std::string_view>& menuOrder() {
    // By category in the order above, each category in its registration order. ImportCurves
    // registers apart, with the Alembic code, but sits after Input. Cards comes last.
    static const std::vector<std::string_view> kOrder = {
        // source
        "Scalp", "Guides", "ColliderMesh", "Reference", "Input", "ImportCurves",
        // grow
        "Scatter", "Interpolate", "Cull",
        // shape
        "Length", "Width", "Resample", "Direction", "Flow", "Part", "Smooth", "Mirror",
        "RestoreLength", "Sculpt", "Subdivide",
        // deform
        "Bend", "Transform", "BlendNeighbors", "Gravity", "Displace",
        // collide
        "Collide", "SelfCollide", "MeshCut",
        // look
        "Clump", "Twist", "Braid", "Noise", "Curl", "Flyaway", "Static", "Tangle", "Wet",
        "Instance", "Scales",
        // motion
        "Wind", "Jiggle", "Simulate",
        // feathers
        "Propagate", "Plume",
        // color
        "HairColor", "Bands", "FeatherColor", "RenderData",
        // convert
        "ToGuides", "ToStrands", "StrandMesh",
        // field
        "Map", "Expression", "Control", "FieldNoise", "FieldRemap", "FieldCombine", "Curve",
        // utility
        "Value", "Group", "Blend", "Attribute", "Split", "Merge", "Switch", "Output", "Compound",
        "Script",
        // games
        "Cards"};
    return kOrder;
}

std::string labelFromType(std::string_view type) {
    std::string label;
    label.reserve(type.size() + 4);
    for (std::size_t i = 0; i < type.size(); ++i) {
        if (i > 0 && isUpper(type[i]) && isLower(type[i - 1])) label += ' ';
        label += type[i];
    }
    return label;
}

void OperatorRegistry::registerType(const std::string& type, OperatorFactory factory,
                                    OperatorInfo info) {
    if (type.empty()) throw std::invalid_argument("registerType: an operator type needs a name");
    if (!factory) {
        throw std::invalid_argument("registerType: operator type '" + type + "' needs a factory");
    }
    if (entries_.contains(type)) {
        throw std::invalid_argument("registerType: operator type '" + type +
                                    "' is already registered");
    }
    entries_.emplace(type, Entry{std::move(factory), std::move(info), {}});
}

void OperatorRegistry::registerUpgrade(const std::string& type, UpgradeStep step) {
    const auto found = entries_.find(type);
    if (found == entries_.end()) {
        throw std::invalid_argument("registerUpgrade: unknown operator type '" + type +
                                    "' (register the type first)");
    }
    if (!step.apply) {
        throw std::invalid_argument("registerUpgrade: the step of '" + type + "' needs a function");
    }
    auto& steps = found->second.upgrades;
    // Kept in version order whatever order they register in; a stable insert keeps two steps
    // from one version in their given order.
    const auto at = std::upper_bound(
        steps.begin(), steps.end(), step.fromVersion,
        [](int version, const UpgradeStep& other) { return version < other.fromVersion; });
    steps.insert(at, std::move(step));
}

bool OperatorRegistry::contains(std::string_view type) const {
    return entries_.contains(type);
}

const OperatorInfo* OperatorRegistry::info(std::string_view type) const {
    const auto found = entries_.find(type);
    return found == entries_.end() ? nullptr : &found->second.info;
}

std::unique_ptr<Operator> OperatorRegistry::create(std::string_view type) const {
    const auto found = entries_.find(type);
    if (found == entries_.end()) {
        throw GraphError("unknown operator type '" + std::string(type) + "'");
    }
    std::unique_ptr<Operator> op = found->second.factory();
    if (!op) {
        throw std::logic_error("create: the factory of operator type '" + std::string(type) +
                               "' made nothing");
    }
    op->declareParams();
    return op;
}

std::unique_ptr<Operator> OperatorRegistry::recreate(const Operator& op) const {
    std::unique_ptr<Operator> copy = create(op.type());
    copy->paramSet.values = op.paramSet.values;
    // An operator whose params follow its definition declares them again once it has it.
    if (copy->paramSet.spec("definition")) copy->declareParams();
    copy->name = op.name;
    copy->savedVersion = op.savedVersion;
    copy->copyStateFrom(op);
    return copy;
}

void OperatorRegistry::setMappedParams(std::shared_ptr<const MappedParams> mapped) {
    mappedParams_ = std::move(mapped);
}

std::vector<std::string> OperatorRegistry::types() const {
    std::vector<std::string> names;
    names.reserve(entries_.size());
    for (const auto& entry : entries_)
        names.push_back(entry.first);
    return names;
}

std::string OperatorRegistry::label(std::string_view type) const {
    const OperatorInfo* entry = info(type);
    if (entry && !entry->label.empty()) return entry->label;
    return labelFromType(type);
}

std::vector<UpgradeStep> OperatorRegistry::upgrades(std::string_view type) const {
    const auto found = entries_.find(type);
    return found == entries_.end() ? std::vector<UpgradeStep>{} : found->second.upgrades;
}

nlohmann::ordered_json OperatorRegistry::schemaJson() const {
    const std::vector<std::string_view>& order = menuOrder();
    Json all = Json::array();
    for (const auto& [type, entry] : entries_) {
        const std::unique_ptr<Operator> op = create(type);
        const OperatorInfo& info = entry.info;
        const std::string category = info.category.empty() ? op->category() : info.category;
        const auto categoryAt =
            std::find_if(kCategories.begin(), kCategories.end(),
                         [&](const Category& known) { return known.key == category; });
        // A type that is not in the menu list (one a host adds) goes after all that are.
        const auto orderAt = std::find(order.begin(), order.end(), type);

        Json channels = Json::array();
        for (const ChannelUse& use : op->fixedChannels()) {
            Json channel = Json::object();
            channel["name"] = use.name;
            channel["role"] = use.role == ChannelRole::Reads ? "reads" : "writes";
            channel["optional"] = use.optional;
            channels.push_back(std::move(channel));
        }
        Json inputs = Json::array();
        for (const PortSpec& port : op->inputs())
            inputs.push_back(portJson(port, true));
        Json outputs = Json::array();
        for (const PortSpec& port : op->outputs())
            outputs.push_back(portJson(port, false));
        Json params = Json::array();
        for (const ParamSpec& spec : schemaParams(*op))
            params.push_back(paramSpecJson(spec));

        Json out = Json::object();
        out["type"] = type;
        out["fixedChannels"] = std::move(channels);
        out["version"] = op->version();
        out["category"] = category;
        out["categoryTitle"] = categoryAt == kCategories.end() ? "" : categoryAt->title;
        out["categoryOrder"] = categoryAt - kCategories.begin();
        out["order"] = orderAt - order.begin();
        out["label"] = label(type);
        out["keywords"] = info.keywords;
        out["hidden"] = info.hidden;
        out["description"] = info.description;
        out["inputs"] = std::move(inputs);
        out["output"] = portJson(op->output(), false);
        out["outputs"] = std::move(outputs);
        out["params"] = std::move(params);
        all.push_back(std::move(out));
    }
    return all;
}

}  // namespace velmorin
