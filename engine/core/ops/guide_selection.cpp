#include "ops/guide_selection.h"

#include <algorithm>
#include <set>

#include "editing/guide_hierarchy.h"
#include "graph/errors.h"

namespace velmorin {

std::vector<std::string> splitGroupNames(std::string_view text) {
    std::vector<std::string> names;
    std::string current;
    for (const char c : text) {
        if (c == ' ' || c == ',' || c == '\t') {
            if (!current.empty()) names.push_back(std::move(current));
            current.clear();
        } else {
            current += c;
        }
    }
    if (!current.empty()) names.push_back(std::move(current));
    return names;
}

std::function<bool(std::uint64_t)> excludedTest(const GuideHierarchy& hierarchy,
                                                std::string_view excluded) {
    std::set<std::uint32_t> groups;
    for (const std::string& name : splitGroupNames(excluded)) {
        const GuideGroup* group = hierarchy.findGroup(name);
        if (!group) throw GraphError("Guides: no guide group named '" + name + "' to exclude");
        groups.insert(group->id);
    }
    if (groups.empty()) return [](std::uint64_t) { return false; };
    return [&hierarchy, groups = std::move(groups)](std::uint64_t id) {
        const Guide* guide = hierarchy.findGuide(id);
        if (!guide) return false;
        std::uint32_t group = guide->group;
        for (int step = 0; step <= 64 && group != 0; ++step) {
            if (groups.count(group)) return true;
            const GuideGroup* found = hierarchy.findGroup(group);
            if (!found) return false;
            group = found->parent;
        }
        return false;
    };
}

GuideSet selectGuides(const GuideHierarchy* hierarchy, const GuideSet* flat,
                      const GuideSelection& selection) {
    const std::vector<std::string> named = splitGroupNames(selection.groups);
    const bool useHierarchy = hierarchy && !hierarchy->guides().empty();
    GuideSet out;
    if (!useHierarchy) {
        // Named groups need a hierarchy that has them.
        for (const std::string& name : named)
            if (!hierarchy || !hierarchy->findGroup(name))
                throw GraphError("Guides: no guide group named '" + name + "'");
        if (!splitGroupNames(selection.excluded).empty()) {
            if (!hierarchy)
                throw GraphError("Guides: no guide group named '" +
                                 splitGroupNames(selection.excluded).front() + "' to exclude");
            excludedTest(*hierarchy, selection.excluded);
        }
        if (flat) out = *flat;
        return out;
    }

    std::set<std::uint32_t> chosen;
    if (!named.empty()) {
        for (const std::string& name : named) {
            const GuideGroup* group = hierarchy->findGroup(name);
            if (!group) throw GraphError("Guides: no guide group named '" + name + "'");
            chosen.insert(group->id);
        }
    } else if (selection.level >= 0) {
        for (const GuideGroup& group : hierarchy->groups())
            if (hierarchy->groupLevel(group.id) == selection.level) chosen.insert(group.id);
    } else {
        // Each family's deepest groups: the groups that no group names as its parent.
        std::set<std::uint32_t> parents;
        for (const GuideGroup& group : hierarchy->groups())
            if (group.parent != 0) parents.insert(group.parent);
        for (const GuideGroup& group : hierarchy->groups())
            if (!parents.count(group.id)) chosen.insert(group.id);
    }
    const auto excluded = excludedTest(*hierarchy, selection.excluded);
    for (const Guide& guide : hierarchy->guides())
        if (chosen.count(guide.group) && !excluded(guide.id)) out.guides.push_back(guide);
    return out;
}

}  // namespace velmorin
