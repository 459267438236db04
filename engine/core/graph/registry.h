#pragma once
// The operator registry: every node type of the system, made by type name, with its menu data. A
// process-wide singleton, filled on first use by one function that registers each built-in operator
// in a fixed order; read-only after that. The singleton lives with the built-in operators, above
// the graph: the graph never reaches for it but works with the registry it is given, so that a
// registry of other operators (a test's) serves as well.

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "graph/operator.h"
#include "graph/run_scene.h"

namespace velmorin {

struct OperatorInfo {
    std::string category;  // menu category key; when empty an instance's category() gives it
    std::string description;
    std::string keywords;  // blank-separated search words
    std::string label;     // display name; when empty derived from the type name
    bool hidden = false;
};

using OperatorFactory = std::function<std::unique_ptr<Operator>()>;

// Rewrites the JSON of a node saved by an older version of its operator into the next version's
// form. Each step is private to its operator and registered with it.
struct UpgradeStep {
    int fromVersion = 1;
    std::function<void(nlohmann::ordered_json& node)> apply;
};

struct Category {
    std::string_view key;
    std::string_view title;
};
// The menu categories in their order ("categoryOrder" is the position).
extern const std::array<Category, 13> kCategories;

// Every type name of the system in menu order ("order" in the schema is the position).
const std::vector<std::string_view>& menuOrder();

// "ToGuides" -> "To Guides": a blank before each capital that follows a lower-case letter.
std::string labelFromType(std::string_view type);

class OperatorRegistry {
  public:
    // The process-wide registry, with every built-in operator registered. Defined with the
    // built-in operators; thread-safe through its function-local static.
    static OperatorRegistry& instance();

    void registerType(const std::string& type, OperatorFactory factory, OperatorInfo info);
    void registerUpgrade(const std::string& type, UpgradeStep step);

    bool contains(std::string_view type) const;
    const OperatorInfo* info(std::string_view type) const;  // null for an unknown type
    // A new operator with its params declared. Throws GraphError "unknown operator type 'x'".
    std::unique_ptr<Operator> create(std::string_view type) const;
    // A new operator of `op`'s type with its params, name, saved version and run-time state
    // (copyStateFrom).
    std::unique_ptr<Operator> recreate(const Operator& op) const;
    std::vector<std::string> types() const;  // name order
    std::string label(std::string_view type) const;
    // The upgrade steps of a type in version order (empty for none).
    std::vector<UpgradeStep> upgrades(std::string_view type) const;

    // One object per registered type, in name order, with every key of the operator schema.
    nlohmann::ordered_json schemaJson() const;

    // What evaluation asks of mapped params (the scene of a run, what maps add to a key); null
    // until the layer of mapped params installs it.
    void setMappedParams(std::shared_ptr<const MappedParams> mapped);
    const MappedParams* mappedParams() const { return mappedParams_.get(); }

  private:
    struct Entry {
        OperatorFactory factory;
        OperatorInfo info;
        std::vector<UpgradeStep> upgrades;
    };
    std::map<std::string, Entry, std::less<>> entries_;
    std::shared_ptr<const MappedParams> mappedParams_;
};

// Registers every built-in operator, in the fixed order, and installs the mapped params they
// read. Defined with the operators.
void registerBuiltinOperators(OperatorRegistry& registry);

}  // namespace velmorin
