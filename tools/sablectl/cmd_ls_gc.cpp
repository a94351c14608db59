// sablectl ls and sablectl gc: what lies in the FIFO directories, and removing what is stale.
#include <fnmatch.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "Args.h"
#include "Commands.h"
#include "FifoDirectory.h"
#include "Payload.h"

namespace sablectl {

namespace {

std::string Octal(unsigned mode) {
    char b[8];
    snprintf(b, sizeof(b), "%04o", mode);
    return b;
}

std::string HoldersText(const FifoEntry& e) {
    std::string out;
    for (const auto& h : e.holders) {
        if (!out.empty()) out += ",";
        out += std::to_string(h.pid) + "(" + h.name + ":" + h.access + ")";
    }
    if (e.lockedBy != 0)
        out += std::string(out.empty() ? "" : ",") + "lock:" + std::to_string(e.lockedBy);
    return out.empty() ? "-" : out;
}

std::string EntryJson(const FifoEntry& e) {
    std::string out = "{\"path\":" + Json(e.Path()) + ",\"dir\":" + Json(e.dir) +
                      ",\"domain\":" + Json(e.domain) + ",\"name\":" + Json(e.name) +
                      ",\"kind\":" + Json(e.kind);
    if (e.kind == "pipe") out += ",\"writer\":" + Json(e.writer) + ",\"reader\":" + Json(e.reader);
    out += ",\"mode\":" + Json(Octal(e.mode)) + ",\"uid\":" + std::to_string(e.uid) +
           ",\"gid\":" + std::to_string(e.gid) + ",\"group\":" + Json(e.group) +
           ",\"label\":" + (e.label.empty() ? std::string("null") : Json(e.label)) +
           ",\"holders\":[";
    for (size_t i = 0; i < e.holders.size(); ++i) {
        const auto& h = e.holders[i];
        out += std::string(i ? "," : "") + "{\"pid\":" + std::to_string(h.pid) +
               ",\"name\":" + Json(h.name) + ",\"access\":" + Json(h.access) + "}";
    }
    out += "],\"locked_by\":" + (e.lockedBy ? std::to_string(e.lockedBy) : std::string("null"));
    out += ",\"stale\":" + std::string(e.stale ? "true" : "false");
    char age[32];
    snprintf(age, sizeof(age), "%.1f", e.ageSeconds);
    return out + ",\"age_s\":" + age + "}";
}

void PrintTable(const std::vector<const FifoEntry*>& rows) {
    size_t wName = 4, wWriter = 6, wReader = 6, wGroup = 5, wLabel = 5;
    for (const auto* e : rows) {
        wName = std::max(wName, e->Path().size());
        wWriter = std::max(wWriter, e->writer.size());
        wReader = std::max(wReader, e->reader.size());
        wGroup = std::max(wGroup, e->group.size());
        wLabel = std::max(wLabel, e->label.empty() ? 1 : e->label.size());
    }
    printf("%-*s %-6s %-*s %-*s %-4s %-*s %-*s %-5s %s\n", static_cast<int>(wName), "PATH", "KIND",
           static_cast<int>(wWriter), "WRITER", static_cast<int>(wReader), "READER", "MODE",
           static_cast<int>(wGroup), "GROUP", static_cast<int>(wLabel), "LABEL", "STATE",
           "HOLDERS");
    for (const auto* e : rows) {
        printf("%-*s %-6s %-*s %-*s %-4s %-*s %-*s %-5s %s\n", static_cast<int>(wName),
               e->Path().c_str(), e->kind.c_str(), static_cast<int>(wWriter),
               e->writer.empty() ? "-" : e->writer.c_str(), static_cast<int>(wReader),
               e->reader.empty() ? "-" : e->reader.c_str(), Octal(e->mode).c_str(),
               static_cast<int>(wGroup), e->group.c_str(), static_cast<int>(wLabel),
               e->label.empty() ? "-" : e->label.c_str(),
               e->kind == "other" ? "-"
               : e->stale         ? "STALE"
                                  : "live",
               HoldersText(*e).c_str());
    }
}

// No patterns: every file; else the files whose name matches one of them.
bool Matches(const FifoEntry& e, const std::vector<std::string>& patterns) {
    if (patterns.empty()) return true;
    for (const auto& p : patterns) {
        if (fnmatch(p.c_str(), e.name.c_str(), 0) == 0) return true;
    }
    return false;
}

}  // namespace

int CmdLs(const Argv& argv) {
    Args args;
    std::string error;
    if (!args.Parse(argv, {}, {"--json", "--stale"}, error)) return Fail(kExitUsage, error);
    FifoDirectory dir;
    dir.Scan();
    std::vector<const FifoEntry*> rows;
    for (const auto& e : dir.Entries()) {
        if ((!args.Has("--stale") || e.stale) && Matches(e, args.Positional())) rows.push_back(&e);
    }
    if (args.Has("--json")) {
        printf("[");
        for (size_t i = 0; i < rows.size(); ++i)
            printf("%s%s", i ? ",\n " : "", EntryJson(*rows[i]).c_str());
        printf("]\n");
        return kExitOk;
    }
    if (rows.empty()) {
        printf("no FIFO files in %s\n", FifoDirectory::MainDir().c_str());
        return kExitOk;
    }
    PrintTable(rows);
    if (dir.OtherProcessesHidden()) {
        fprintf(stderr,
                "sablectl: note: some processes' descriptors are not readable by this user; "
                "run as root to see every holder\n");
    }
    return kExitOk;
}

int CmdGc(const Argv& argv) {
    Args args;
    std::string error;
    long minAge = 0;
    if (!args.Parse(argv, {"--min-age"}, {"--delete", "--json"}, error) ||
        !args.GetInt("--min-age", 2, 0, 1000000, minAge, error)) {
        return Fail(kExitUsage, error);
    }
    FifoDirectory dir;
    dir.Scan();
    const bool doDelete = args.Has("--delete");
    const bool json = args.Has("--json");
    if (!doDelete && dir.OtherProcessesHidden()) {
        fprintf(stderr,
                "sablectl: note: not every process's descriptors are readable by this user; "
                "files held only by such processes look stale\n");
    }
    if (doDelete && dir.OtherProcessesHidden()) {
        return Fail(kExitFailed,
                    "cannot see every process's descriptors as this user, so a live FIFO could "
                    "look stale; run 'sablectl gc --delete' as root");
    }
    int status = kExitOk, count = 0;
    std::string out;
    for (const auto& e : dir.Entries()) {
        if (e.kind == "other" || !e.stale || !Matches(e, args.Positional())) continue;
        std::string action = "stale";
        if (e.ageSeconds < static_cast<double>(minAge)) {
            action = "kept (changed " + std::to_string(static_cast<long>(e.ageSeconds)) +
                     " s ago, younger than --min-age)";
        } else if (doDelete) {
            if (FifoDirectory::InUse(e)) {
                action = "kept (now in use)";
            } else if (unlink(e.Path().c_str()) == 0 || errno == ENOENT) {
                action = "deleted";
            } else {
                action = std::string("not deleted: ") + strerror(errno);
                status = kExitFailed;
            }
        }
        ++count;
        if (json) {
            out += std::string(out.empty() ? "" : ",\n ") + "{\"path\":" + Json(e.Path()) +
                   ",\"kind\":" + Json(e.kind) + ",\"action\":" + Json(action) + "}";
        } else {
            printf("%s  %s\n", e.Path().c_str(), action.c_str());
        }
    }
    if (json) {
        printf("[%s]\n", out.c_str());
    } else if (count == 0) {
        printf("no stale FIFO files\n");
    } else if (!doDelete) {
        printf("%d stale file%s; 'sablectl gc --delete' removes them\n", count,
               count == 1 ? "" : "s");
    }
    return status;
}

}  // namespace sablectl
