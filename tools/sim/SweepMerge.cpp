#include "SweepMerge.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <set>
#include <sstream>

#include "ChildRuns.h"
#include "Scenario.h"
#include "SweepRank.h"

namespace pelyx_sim {
namespace {

const char* const kRule =
        "a failed setting last; a setting that gives any entry more janks than the library disabled below every "
        "one that does not; then the fewest janks summed over the entries; then the fewest entries without a "
        "touch-to-present figure and the lowest p50 summed; then the fewest boosts; then the sweep's order";

std::string scenarioText(const SweepInputs& inputs, const std::string& path) {
    if (path.empty()) return kDefaultScenarioJson;
    auto it = inputs.scenarios.find(path);
    if (it == inputs.scenarios.end()) throw ScenarioError(path, "not read");
    return it->second;
}

std::string compact(const Json::Value& v) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, v);
}

std::string number(double v) {
    char text[32];
    snprintf(text, sizeof(text), "%.17g", v);
    return text;
}

// A hint's text (or an object's "text") naming `from` renamed to name `to`.
Json::Value renamedText(const Json::Value& v, const std::string& from, const std::string& to) {
    Json::Value out = v;
    if (out.isObject() && out.isMember("text") && out["text"].isString() && packageOfText(out["text"].asString()) == from) {
        out["text"] = to + out["text"].asString().substr(from.size());
    }
    return out;
}

// A hint value in the short form a sweep file uses when it has one field.
Json::Value shortForm(const Json::Value& v) {
    if (!v.isObject() || v.size() != 1) return v;
    const std::string key = v.getMemberNames()[0];
    return key == "text" || key == "value" || key == "values" ? v[key] : v;
}

// One value per axis, in the shape of the sweep's axes, naming `to` where the sweep named `from`.
Json::Value axesOf(const SweepSetup& setup, const Setting& setting, const std::string& from, const std::string& to) {
    Json::Value axes(Json::arrayValue);
    for (size_t a = 0; a < setup.axes.size(); ++a) {
        const SweepAxis& axis = setup.axes[a];
        Json::Value out(Json::objectValue);
        if (axis.hint) {
            out["hint"] = axis.hintId;
            out["at_s"] = axis.atS;
            const Json::Value fields = renamedText(axis.fields, from, to);
            for (const std::string& key : fields.getMemberNames()) out[key] = fields[key];
            out["values"].append(shortForm(renamedText(axis.values[setting[a]], from, to)));
        } else {
            out["property"] = axis.property;
            out["values"].append(axis.values[setting[a]]);
        }
        axes.append(out);
    }
    return axes;
}

std::string fixed(const char* format, double v) {
    if (std::isnan(v)) return "-";
    char text[32];
    snprintf(text, sizeof(text), format, v);
    return text;
}

} // namespace

uint64_t fnv1a(const std::string& data, uint64_t hash) {
    for (unsigned char c : data) {
        hash ^= c;
        hash *= 1099511628211ull;
    }
    return hash;
}

std::string hexHash(uint64_t hash) {
    char text[17];
    snprintf(text, sizeof(text), "%016llx", static_cast<unsigned long long>(hash));
    return text;
}

SweepPlan makePlan(const SweepInputs& inputs) {
    SweepPlan plan;
    plan.setup = parseSweep(inputs.sweepText);
    resolveBeside(&plan.setup, inputs.sweepPath);
    plan.settings = settingsOf(plan.setup);
    for (const Setting& s : plan.settings) plan.labels.push_back(settingLabel(plan.setup, s));
    Json::StreamWriterBuilder writer;
    for (const SweepEntry& e : plan.setup.entries) {
        const std::string where = e.scenarioPath.empty() ? "(built-in scenario)" : e.scenarioPath;
        Json::Value base;
        try {
            parseScenario(scenarioText(inputs, e.scenarioPath));
            base = parseStrictJson(scenarioText(inputs, e.scenarioPath));
        } catch (const ScenarioError& error) {
            throw ScenarioError(where + ": " + error.key(), error.reason());
        }
        std::pair<std::string, std::string> ranked;
        try {
            ranked = rankedLayerOf(base, e.layer);
        } catch (const ScenarioError& error) {
            throw ScenarioError("entry \"" + e.name + "\": layer", error.reason());
        }
        plan.bases.push_back(base);
        plan.rankedLayers.push_back(ranked.first);
        plan.ownPackages.push_back(ranked.second);
        plan.packages.push_back(e.package.empty() ? ranked.second : e.package);
        for (size_t s = 0; s < plan.settings.size(); ++s) {
            PlannedRun run{plan.bases.size() - 1, 0, RunKind::Setting, s};
            try {
                parseScenario(Json::writeString(writer, scenarioOf(plan, run)));
            } catch (const ScenarioError& error) {
                throw ScenarioError("setting " + plan.labels[s] + " on entry \"" + e.name + "\"",
                                    "makes the scenario invalid: " + error.key() + ": " + error.reason());
            }
        }
    }
    return plan;
}

std::vector<PlannedRun> planRuns(const SweepPlan& plan) {
    std::vector<PlannedRun> runs;
    for (size_t e = 0; e < plan.setup.entries.size(); ++e) {
        for (int k = 0; k < plan.setup.seeds; ++k) {
            runs.push_back({e, k, RunKind::Baseline, 0});
            runs.push_back({e, k, RunKind::Default, 0});
            for (size_t s = 0; s < plan.settings.size(); ++s) runs.push_back({e, k, RunKind::Setting, s});
        }
    }
    return runs;
}

std::vector<size_t> shardRuns(size_t runs, int shard, int shards) {
    std::vector<size_t> mine;
    for (size_t i = static_cast<size_t>(shard); i < runs; i += static_cast<size_t>(shards)) mine.push_back(i);
    return mine;
}

Json::Value scenarioOf(const SweepPlan& plan, const PlannedRun& run) {
    const std::string& own = plan.ownPackages[run.entry];
    Json::Value scenario = plan.bases[run.entry];
    if (run.kind == RunKind::Setting) scenario = applySetting(scenario, plan.setup, plan.settings[run.setting], own);
    if (plan.packages[run.entry] != own) scenario = renamePackage(scenario, own, plan.packages[run.entry]);
    return scenario;
}

std::vector<std::string> argumentsOf(const SweepPlan& plan, const PlannedRun& run, bool realClock) {
    std::vector<std::string> args{"--seed", std::to_string(plan.setup.seed + static_cast<uint32_t>(run.seedIndex))};
    if (run.seedIndex > 0) args.insert(args.end(), {"--vsync-phase", number(rerunVsyncPhase(run.seedIndex))});
    if (plan.setup.durationS) args.insert(args.end(), {"--duration", number(*plan.setup.durationS)});
    for (const auto& [layer, file] : plan.setup.entries[run.entry].replays) {
        args.insert(args.end(), {"--replay", layer + "=" + file});
    }
    if (run.kind == RunKind::Baseline) args.push_back("--disable");
    if (realClock) args.insert(args.end(), {"--clock", "real"});
    return args;
}

Json::Value makePart(const SweepInputs& inputs, int shard, int shards, size_t runs,
                     const std::vector<size_t>& indices, const std::vector<RunOutcome>& outcomes, double wallS) {
    Json::Value part(Json::objectValue);
    part["schema"] = kSweepPartSchema;
    part["sweep"] = inputs.sweepPath;
    part["sweep_hash"] = inputs.inputsHash;
    part["binary_hash"] = inputs.binaryHash;
    part["clock"] = inputs.realClock ? "real" : "virtual";
    part["shard"] = shard;
    part["shards"] = shards;
    part["runs"] = static_cast<Json::UInt64>(runs);
    part["sweep_text"] = inputs.sweepText;
    part["scenarios"] = Json::Value(Json::objectValue);
    for (const auto& [path, text] : inputs.scenarios) part["scenarios"][path] = text;
    Json::Value results(Json::arrayValue);
    for (size_t i = 0; i < indices.size(); ++i) {
        Json::Value r(Json::arrayValue);
        r.append(static_cast<Json::UInt64>(indices[i]));
        r.append(outcomes[i].ok ? exactMetricsJson(outcomes[i].metrics) : Json::Value(outcomes[i].error));
        results.append(r);
    }
    part["results"] = results;
    part["host"]["wall_s"] = wallS;  // the host's, not the sweep's: the merge ignores it
    return part;
}

MergedRuns mergeParts(const std::vector<std::pair<std::string, Json::Value>>& parts) {
    if (parts.empty()) throw MergeError("no part to merge");
    const std::string& firstName = parts[0].first;
    const Json::Value& first = parts[0].second;
    std::map<int, std::string> seen;
    MergedRuns merged;
    std::vector<bool> have;
    for (const auto& [name, part] : parts) {
        if (!part.isObject() || part["schema"].asString() != kSweepPartSchema || !part["shards"].isInt() ||
            !part["shard"].isInt() || !part["runs"].isUInt64() || !part["results"].isArray() ||
            !part["sweep_text"].isString() || !part["scenarios"].isObject()) {
            throw MergeError(name + ": not a part of a sharded sweep (pelyx-sim --sweep S --shard K/N --summary FILE)");
        }
        if (part["sweep_hash"] != first["sweep_hash"] || part["sweep_text"] != first["sweep_text"] ||
            part["scenarios"] != first["scenarios"] || part["runs"] != first["runs"]) {
            throw MergeError(name + ": a part of another sweep than " + firstName + " (" + part["sweep"].asString() +
                             " or the files it names differ)");
        }
        if (part["binary_hash"] != first["binary_hash"]) {
            throw MergeError(name + ": played by another build of pelyx-sim than " + firstName);
        }
        if (part["clock"] != first["clock"]) throw MergeError(name + ": played on another clock than " + firstName);
        const int shard = part["shard"].asInt(), shards = part["shards"].asInt();
        if (shards != first["shards"].asInt()) {
            throw MergeError(name + ": one of " + std::to_string(shards) + " shards, " + firstName + " one of " +
                             first["shards"].asString());
        }
        if (shard < 0 || shard >= shards) throw MergeError(name + ": shard " + std::to_string(shard) + " of " + std::to_string(shards));
        if (!seen.emplace(shard, name).second) {
            throw MergeError(name + ": shard " + std::to_string(shard) + "/" + std::to_string(shards) + " again (also " +
                             seen[shard] + ")");
        }
        const size_t runs = part["runs"].asUInt64();
        if (have.empty()) have.assign(runs, false), merged.outcomes.resize(runs);
        const std::vector<size_t> expected = shardRuns(runs, shard, shards);
        if (part["results"].size() != expected.size()) throw MergeError(name + ": not every run of its shard");
        for (Json::ArrayIndex i = 0; i < part["results"].size(); ++i) {
            const Json::Value& r = part["results"][i];
            if (!r.isArray() || r.size() != 2 || !r[0].isUInt64() || r[0].asUInt64() != expected[i]) {
                throw MergeError(name + ": results[" + std::to_string(i) + "]: not the run its shard plays");
            }
            RunOutcome& o = merged.outcomes[expected[i]];
            have[expected[i]] = true;
            o.ok = !r[1].isString();
            if (o.ok) {
                try {
                    o.metrics = exactMetricsOf(r[1]);
                } catch (const std::runtime_error& e) {
                    throw MergeError(name + ": results[" + std::to_string(i) + "]: " + e.what());
                }
            } else {
                o.error = r[1].asString();
            }
        }
    }
    const int shards = first["shards"].asInt();
    std::string missing;
    for (int k = 0; k < shards; ++k) {
        if (!seen.count(k)) missing += (missing.empty() ? "" : ", ") + std::to_string(k);
    }
    if (!missing.empty()) {
        throw MergeError("missing part: shard " + missing + " of " + std::to_string(shards) + " (" +
                         std::to_string(seen.size()) + " given)");
    }
    merged.inputs.sweepPath = first["sweep"].asString();
    merged.inputs.sweepText = first["sweep_text"].asString();
    for (const std::string& path : first["scenarios"].getMemberNames()) {
        merged.inputs.scenarios[path] = first["scenarios"][path].asString();
    }
    merged.inputs.inputsHash = first["sweep_hash"].asString();
    merged.inputs.binaryHash = first["binary_hash"].asString();
    merged.inputs.realClock = first["clock"].asString() == "real";
    return merged;
}

SweepResult summarize(const SweepPlan& plan, const MergedRuns& merged) {
    const SweepSetup& setup = plan.setup;
    const size_t entries = setup.entries.size(), settings = plan.settings.size();
    const std::vector<PlannedRun> runs = planRuns(plan);
    // [entry][seed]: baseline, own setting; [setting]: per entry, per seed.
    std::vector<std::vector<SweepMetrics>> baseSeeds(entries), ownSeeds(entries);
    std::vector<std::vector<std::vector<SweepMetrics>>> seedFigures(settings, std::vector<std::vector<SweepMetrics>>(entries));
    std::vector<SettingFigures> figures(settings);
    for (size_t i = 0; i < runs.size(); ++i) {
        const PlannedRun& r = runs[i];
        const RunOutcome& o = merged.outcomes[i];
        if (r.kind != RunKind::Setting && !o.ok) {
            throw std::runtime_error(std::string(r.kind == RunKind::Baseline ? "the baseline" : "the scenario's own setting") +
                                     " of entry \"" + setup.entries[r.entry].name + "\" failed: " + o.error);
        }
        if (r.kind == RunKind::Baseline) baseSeeds[r.entry].push_back(o.metrics);
        if (r.kind == RunKind::Default) ownSeeds[r.entry].push_back(o.metrics);
        if (r.kind != RunKind::Setting) continue;
        seedFigures[r.setting][r.entry].push_back(o.metrics);
        if (!o.ok && !figures[r.setting].failed) figures[r.setting].failed = true, figures[r.setting].error = o.error;
    }
    std::vector<SweepMetrics> baseline, own;
    for (size_t e = 0; e < entries; ++e) {
        baseline.push_back(combineFigures(baseSeeds[e]));
        own.push_back(combineFigures(ownSeeds[e]));
    }
    for (size_t s = 0; s < settings; ++s) {
        for (size_t e = 0; e < entries; ++e) figures[s].perEntry.push_back(combineFigures(seedFigures[s][e]));
    }
    std::vector<size_t> all(entries);
    for (size_t e = 0; e < entries; ++e) all[e] = e;
    const std::vector<RankedSetting> overall = rankSettings(figures, baseline, all);
    if (overall[0].failed) throw std::runtime_error("every setting failed; the first: " + overall[0].error);

    std::ostringstream text;
    Json::Value summary(Json::objectValue);
    summary["schema"] = kSweepSchema;
    summary["sweep"] = merged.inputs.sweepPath;
    summary["sweep_hash"] = merged.inputs.inputsHash;
    summary["binary_hash"] = merged.inputs.binaryHash;
    summary["clock"] = merged.inputs.realClock ? "real" : "virtual";
    const SweepEntry& firstEntry = setup.entries[0];
    summary["scenario"] = entries == 1 ? (firstEntry.scenarioPath.empty() ? "(built-in scenario)" : firstEntry.scenarioPath)
                                       : std::to_string(entries) + " entries";
    summary["layer"] = plan.rankedLayers[0];
    summary["seed"] = setup.seed;
    summary["seeds"] = setup.seeds;
    summary["settings"] = static_cast<Json::UInt64>(settings);
    summary["runs_played"] = static_cast<Json::UInt64>(runs.size());
    summary["rule"] = kRule;

    auto rowOf = [&](const RankedSetting& r, int rank) {
        Json::Value row = metricsJson(r.total);
        row["rank"] = r.failed ? Json::Value() : Json::Value(rank);
        row["label"] = plan.labels[r.setting];
        row["janks"] = r.total.late;
        row["non_dominated"] = r.nonDominated;
        row["worse_than_disabled_on"] = Json::Value(Json::arrayValue);
        for (size_t e : r.worseOn) row["worse_than_disabled_on"].append(setup.entries[e].name);
        row["failed"] = r.failed;
        if (r.failed) row["error"] = r.error;
        return row;
    };
    Json::Value list(Json::arrayValue);
    int rank = 0;
    for (const RankedSetting& r : overall) {
        Json::Value row = rowOf(r, ++rank);
        Json::Value pushes(Json::arrayValue);
        for (const std::string& line : describeSetting(applySetting(plan.bases[0], setup, plan.settings[r.setting],
                                                                    plan.ownPackages[0]), setup)) {
            pushes.append(line);
        }
        row["setting"] = pushes;
        list.append(row);
    }
    summary["runs"] = list;
    summary["best"]["label"] = plan.labels[overall[0].setting];
    summary["best"]["setting"] = list[0]["setting"];

    char line[768];
    snprintf(line, sizeof(line), "pelyx-sim --sweep %s: %zu settings x %zu %s x %d seed%s (%zu runs with each entry's "
             "baseline and own setting), seed %u\n", merged.inputs.sweepPath.c_str(), settings, entries,
             entries == 1 ? "entry" : "entries", setup.seeds, setup.seeds == 1 ? "" : "s", runs.size(), setup.seed);
    text << line << "ranked: " << kRule << ".\n"
         << "janks, vsyncs and boosts summed over the entries and seeds; p50, p95, fps, hold p99, cpu/s their mean;\n"
         << "* no other setting is better on p50, janks and boosts at once; worse: entries with more janks than the "
            "library disabled\n\n";
    printRanking(overall, plan.labels, text);

    // Per package: the best of the settings on its entries.
    std::map<std::string, std::vector<size_t>> byPackage;
    for (size_t e = 0; e < entries; ++e) byPackage[plan.packages[e]].push_back(e);
    std::map<std::string, RankedSetting> chosen;
    Json::Value recommendation(Json::objectValue);
    recommendation["schema"] = kHintsSchema;
    recommendation["sweep"] = merged.inputs.sweepPath;
    recommendation["sweep_hash"] = merged.inputs.inputsHash;
    for (const auto& [package, members] : byPackage) {
        const RankedSetting best = rankSettings(figures, baseline, members)[0];
        if (best.failed) throw std::runtime_error("every setting failed on " + package + "; the first: " + best.error);
        chosen[package] = best;
        Json::Value p(Json::objectValue);
        p["label"] = plan.labels[best.setting];
        for (size_t e : members) p["entries"].append(setup.entries[e].name);
        p["worse_than_disabled"] = !best.worseOn.empty();
        p["axes"] = axesOf(setup, plan.settings[best.setting], plan.ownPackages[members[0]], package);
        recommendation["packages"][package] = p;
    }
    summary["recommendation"] = recommendation;

    text << "\nper entry (recommended: the best setting on its package's entries; janks summed and p50/p95 the mean "
            "over the seeds):\n";
    snprintf(line, sizeof(line), "  %-42s %-24s %-20s %-20s %-20s\n", "entry", "package", "disabled janks p50",
             "own setting", "recommended");
    text << line;
    Json::Value entryList(Json::arrayValue);
    auto brief = [](const SweepMetrics& m) { return std::to_string(m.late) + "  " + fixed("%.1f", m.p50Ms); };
    for (size_t e = 0; e < entries; ++e) {
        const SweepEntry& entry = setup.entries[e];
        const RankedSetting& best = chosen[plan.packages[e]];
        Json::Value j(Json::objectValue);
        j["name"] = entry.name;
        j["package"] = plan.packages[e];
        j["layer"] = plan.rankedLayers[e];
        std::string play = entry.scenarioPath.empty() ? "" : entry.scenarioPath + " ";
        for (const auto& [layer, file] : entry.replays) play += "--replay " + layer + "=" + file + " ";
        if (plan.packages[e] != plan.ownPackages[e]) play += "--package " + plan.rankedLayers[e] + "=" + plan.packages[e] + " ";
        play += "--seed " + std::to_string(setup.seed);
        if (setup.durationS) play += " --duration " + number(*setup.durationS);
        j["play"] = play;
        j["baseline"] = metricsJson(baseline[e]);
        j["default"] = metricsJson(own[e]);
        Json::Value recommended = metricsJson(figures[best.setting].perEntry[e]);
        recommended["label"] = plan.labels[best.setting];
        for (const SweepMetrics& m : seedFigures[best.setting][e]) recommended["per_seed"].append(metricsJson(m));
        j["recommended"] = recommended;
        Json::Value ranked(Json::arrayValue);
        int entryRank = 0;
        for (const RankedSetting& r : rankSettings(figures, baseline, {e})) ranked.append(rowOf(r, ++entryRank));
        j["runs"] = ranked;
        entryList.append(j);
        snprintf(line, sizeof(line), "  %-42s %-24s %-20s %-20s %-20s%s\n", entry.name.c_str(), plan.packages[e].c_str(),
                 brief(baseline[e]).c_str(), brief(own[e]).c_str(), brief(figures[best.setting].perEntry[e]).c_str(),
                 figures[best.setting].perEntry[e].late > baseline[e].late ? "  (more janks than disabled)" : "");
        text << line;
    }
    summary["entries"] = entryList;

    text << "\nrecommendation (--recommend FILE writes it; pelyx-sim SCENARIO --hints FILE plays it):\n";
    for (const auto& [package, p] : byPackage) {
        const Json::Value& r = recommendation["packages"][package];
        text << "  " << package << ":";
        for (const Json::Value& axis : r["axes"]) {
            Json::Value value = axis["values"][0];
            text << "  " << (axis.isMember("hint") ? "hint " + axis["hint"].asString() : axis["property"].asString())
                 << " = " << (value.isString() ? value.asString() : compact(value));
        }
        text << "\n";
    }
    return {summary, recommendation, text.str()};
}

std::string hintsFileText(const Json::Value& hints) {
    std::string text = "{\n";
    for (const char* key : {"schema", "sweep", "sweep_hash"}) text += "  \"" + std::string(key) + "\": " + compact(hints[key]) + ",\n";
    text += "  \"packages\": {";
    const std::vector<std::string> packages = hints["packages"].getMemberNames();
    for (size_t p = 0; p < packages.size(); ++p) {
        const Json::Value& package = hints["packages"][packages[p]];
        text += std::string(p == 0 ? "" : ",") + "\n    " + compact(Json::Value(packages[p])) + ": {\n";
        for (const char* key : {"label", "entries", "worse_than_disabled"}) {
            text += "      \"" + std::string(key) + "\": " + compact(package[key]) + ",\n";
        }
        text += "      \"axes\": [";
        for (Json::ArrayIndex a = 0; a < package["axes"].size(); ++a) {
            text += std::string(a == 0 ? "" : ",") + "\n        " + compact(package["axes"][a]);
        }
        text += "\n      ]\n    }";
    }
    return text + "\n  }\n}\n";
}

Json::Value applyHints(const Json::Value& scenario, const Json::Value& hints) {
    if (!hints.isObject() || hints["schema"].asString() != kHintsSchema) {
        throw ScenarioError("schema", std::string("not \"") + kHintsSchema + "\" (a recommendation of pelyx-sim --sweep)");
    }
    const Json::Value& packages = hints["packages"];
    if (!packages.isObject() || packages.empty()) throw ScenarioError("packages", "must be a non-empty object");
    std::set<std::string> present;
    for (const Json::Value& app : scenario["apps"]) present.insert(app["package"].asString());
    Json::Value out = scenario;
    bool any = false;
    for (const std::string& package : packages.getMemberNames()) {
        const std::string path = "packages." + package;
        const Json::Value& axes = packages[package]["axes"];
        if (!axes.isArray() || axes.empty()) throw ScenarioError(path + ".axes", "must be a non-empty list");
        for (Json::ArrayIndex i = 0; i < axes.size(); ++i) {
            const std::string where = path + ".axes[" + std::to_string(i) + "]";
            const SweepAxis axis = parseSweepAxis(axes[i], where);
            if (axis.values.size() != 1) throw ScenarioError(where + ".values", "must hold exactly one value");
            if (present.count(package)) out = applyAxisValue(out, axis, axis.values[0], package);
        }
        any = any || present.count(package);
    }
    if (!any) {
        std::string names;
        for (const std::string& p : present) names += (names.empty() ? "" : ", ") + p;
        throw ScenarioError("packages", "names none of the scenario's apps (" + names + ")");
    }
    return out;
}

} // namespace pelyx_sim
