// The catalog administration commands. They act as an administrator through
// the SQLite catalog's administration API (no access checks), except `info`,
// which also shows what --user may do with the item.
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "democatalog.h"
#include "favoritesdocument.h"
#include "jsonwriter.h"
#include "passwords.h"
#include "qz/webcatalog/catalog.h"
#include "qz/webcatalog/sqlitecatalog.h"
#include "storeopen.h"
#include "textinput.h"
#include "toolerrors.h"

namespace kiv::tool {

std::string timeText(catalog::Time t) { return utcTimeText(t, "%Y-%m-%d %H:%M:%S"); }


namespace {

using catalog::ManagedCatalog;

const char* itemTypeName(unsigned type) noexcept {
    if (type & catalog::kLink) return "link";
    if (type & catalog::kFolder) return "folder";
    if (type & catalog::kObject) return "object";
    return "unknown";
}

const char* rightsName(catalog::Rights r) noexcept {
    switch (r) {
        case catalog::Rights::kWrite: return "write";
        case catalog::Rights::kRead: return "read";
        default: return "none";
    }
}

std::string u8(const String& s) { return s.toUtf8(); }

void printDone(const GlobalOptions& options, const std::string& what, const catalog::Path& path) {
    if (options.json) {
        JsonWriter w;
        w.beginObject().member("result", "ok").member("action", what).member("path", path.toString()).endObject();
        print(w.str() + "\n");
    } else {
        print(what + " " + u8(path.toString()) + "\n");
    }
}

void writeEntryJson(JsonWriter& w, const ManagedCatalog::Entry& e) {
    w.beginObject();
    w.member("path", e.path.toString()).member("type", itemTypeName(e.type));
    w.member("modified", static_cast<std::int64_t>(e.lastModified));
    if (e.type & catalog::kLink) w.member("target", e.linkTarget);
    if (e.type & catalog::kObject) w.member("signature", e.signature);
    w.endObject();
}

std::string entryLine(const ManagedCatalog::Entry& e) {
    std::string line = itemTypeName(e.type);
    line.resize(8, ' ');
    line += timeText(e.lastModified) + "  " + u8(e.path.toString());
    if (e.type & catalog::kLink) line += " -> " + u8(e.linkTarget);
    if (e.type & catalog::kObject) line += "  (" + u8(e.signature) + ")";
    return line + "\n";
}

void collect(ManagedCatalog& c, const catalog::Path& folder, bool recursive, std::vector<ManagedCatalog::Entry>& out) {
    for (ManagedCatalog::Entry& e : c.list(folder)) {
        const bool descend = recursive && (e.type & catalog::kFolder) && !(e.type & catalog::kLink);
        const catalog::Path child = e.path;
        out.push_back(std::move(e));
        if (descend) collect(c, child, true, out);
    }
}

// The SQLite catalog under the store, or null for a PostgreSQL catalog.
catalog::SqliteCatalog* sqliteFile(ManagedCatalog& c) { return dynamic_cast<catalog::SqliteCatalog*>(&c); }

// The problems SQLite's integrity check finds in a catalog file, joined
// with "; ", or "" when it is sound.
std::string damage(catalog::SqliteCatalog& c) {
    std::string report = c.integrityCheck();
    if (report == "ok") return {};
    std::string joined;
    for (const char ch : report) {
        if (ch == '\n') joined += "; ";
        else joined += ch;
    }
    return joined;
}

// Opens the catalog for init or demo. A file that existed must be sound:
// writing into a damaged one would report success over a catalog that
// loses data.
std::unique_ptr<ManagedCatalog> openForCreating(const GlobalOptions& options) {
    std::error_code ec;
    const bool existed = !isPostgresStore(options.catalogFile) && std::filesystem::exists(options.catalogFile, ec);
    auto c = openCatalog(options, OpenMode::kCreate);
    if (catalog::SqliteCatalog* file = existed ? sqliteFile(*c) : nullptr) {
        const std::string problems = damage(*file);
        if (!problems.empty())
            throw catalog::CatalogException(
                catalog::kErrorLoadingCatalog, argumentText(options.catalogFile, "--catalog"),
                String::fromUtf8("the file is damaged, SQLite's integrity check reports: " + problems +
                                 "; it was left as it is"));
    }
    return c;
}

void addInit(CLI::App& parent, const GlobalOptions& options, CommandSet& commands) {
    CLI::App* cmd = parent.add_subcommand("init", "Create the catalog file (if missing) with the folders /shared and /users");
    commands.add(cmd, [&options] {
        auto c = openForCreating(options);
        c->makeFolder(catalog::Path(String(L"/shared")));
        c->makeFolder(catalog::Path(String(L"/users")));
        if (options.json) {
            JsonWriter w;
            w.beginObject().member("result", "ok").member("catalog", storeDisplayName(options.catalogFile)).endObject();
            print(w.str() + "\n");
        } else {
            print("initialised catalog " + storeDisplayName(options.catalogFile) + "\n");
        }
    });
}

void addDemo(CLI::App& parent, const GlobalOptions& options, CommandSet& commands) {
    CLI::App* cmd = parent.add_subcommand("demo", "Create the catalog file (if missing) and write a sample into it");
    cmd->footer("The sample: /shared/Common (everyone may read), /shared/Sales, /shared/Finance and\n"
                "/shared/HR (readable by the groups sales, finance and hr) with reports and dashboards\n"
                "(folders of pages); users alice (sales), bob (finance), carol (hr, sales), dave (sales)\n"
                "and admin (administrators), each with a home folder /users/NAME; favorites for alice\n"
                "and bob; and an old mobile favorites object for dave, upgraded on his first use.\n"
                "Running it again restores the sample's items and keeps everything else.");
    commands.add(cmd, [&options] {
        auto c = openForCreating(options);
        const DemoSummary s = buildDemoCatalog(*c);
        if (options.json) {
            JsonWriter w;
            w.beginObject().member("result", "ok").member("catalog", storeDisplayName(options.catalogFile));
            w.key("users").beginArray();
            for (const std::string& u : s.users) w.value(u);
            w.endArray();
            w.member("folders", s.folders).member("objects", s.objects).member("links", s.links);
            w.member("password", kDemoPassword).endObject();
            print(w.str() + "\n");
        } else {
            std::string users;
            for (const std::string& u : s.users) users += (users.empty() ? "" : ", ") + u;
            print("wrote the demo catalog to " + storeDisplayName(options.catalogFile) + ": " + std::to_string(s.folders) +
                  " folders, " + std::to_string(s.objects) + " objects, " + std::to_string(s.links) +
                  " link; users " + users + " (password \"" + kDemoPassword + "\")\n");
        }
    });
}

// Properties given as repeated --property NAME=VALUE.
std::map<String, String> propertyArguments(const std::vector<std::string>& properties) {
    std::map<String, String> props;
    for (const std::string& nv : properties) {
        const auto eq = nv.find('=');
        if (eq == std::string::npos || eq == 0) throw UsageError("--property '" + nv + "' is not NAME=VALUE");
        props[argumentText(nv.substr(0, eq), "--property")] = argumentText(nv.substr(eq + 1), "--property");
    }
    return props;
}

struct MkdirArgs {
    std::string path;
    std::vector<std::string> properties;
};

void addMkdir(CLI::App& parent, const GlobalOptions& options, CommandSet& commands) {
    auto args = std::make_shared<MkdirArgs>();
    CLI::App* cmd = parent.add_subcommand("mkdir", "Make a folder and any missing parent folders");
    cmd->add_option("PATH", args->path, "Catalog path of the folder")->required();
    cmd->add_option("--property", args->properties,
                    "A property NAME=VALUE of the folder (repeatable); a dashboard folder has "
                    "compositeSignature=dashboardfolder1");
    commands.add(cmd, [&options, args] {
        const catalog::Path p = catalogPathArgument(args->path, "PATH");
        const std::map<String, String> props = propertyArguments(args->properties);
        auto c = openCatalog(options, OpenMode::kExisting);
        c->makeFolder(p);
        if (!props.empty()) c->setProperties(p, props);
        printDone(options, "made folder", p);
    });
}

struct PutArgs {
    std::vector<std::string> paths;
    std::string signature;
    std::vector<std::string> properties;
    std::string body;
};

void addPut(CLI::App& parent, const GlobalOptions& options, CommandSet& commands) {
    auto args = std::make_shared<PutArgs>();
    CLI::App* cmd = parent.add_subcommand(
        "put", "Create or replace objects (missing parent folders are made); several in one transaction");
    cmd->add_option("PATH", args->paths, "Catalog path of the object (several: each gets the same signature, "
                                          "properties and body)")
        ->required();
    cmd->add_option("--signature", args->signature, "Object signature, such as report1 or dashboardpage1")->required();
    cmd->add_option("--property", args->properties, "A property NAME=VALUE (repeatable)");
    cmd->add_option("--body", args->body, "File holding the object's body, or - for standard input (default: empty)");
    commands.add(cmd, [&options, args] {
        std::vector<catalog::ManagedCatalog::ObjectSpec> objects;
        for (const std::string& path : args->paths) objects.push_back({catalogPathArgument(path, "PATH"), {}, {}, {}});
        const String signature = argumentText(args->signature, "--signature");
        if (signature.empty()) throw UsageError("--signature must not be empty");
        const std::map<String, String> props = propertyArguments(args->properties);
        const std::string body = args->body.empty() ? std::string() : readInput(args->body);
        for (auto& o : objects) {
            o.signature = signature;
            o.properties = props;
            o.body = body;
        }
        auto c = openCatalog(options, OpenMode::kExisting);
        if (objects.size() == 1) {
            c->putObject(objects[0].path, signature, props, body);
            printDone(options, "put object", objects[0].path);
            return;
        }
        c->putObjects(objects);
        if (options.json) {
            JsonWriter w;
            w.beginObject().member("result", "ok").member("action", "put objects").key("paths").beginArray();
            for (const auto& o : objects) w.value(o.path.toString());
            w.endArray().endObject();
            print(w.str() + "\n");
        } else {
            for (const auto& o : objects) print("put object " + u8(o.path.toString()) + "\n");
        }
    });
}

void addLink(CLI::App& parent, const GlobalOptions& options, CommandSet& commands) {
    auto args = std::make_shared<std::pair<std::string, std::string>>();
    CLI::App* cmd = parent.add_subcommand("link", "Create or replace a link (the target need not exist)");
    cmd->add_option("PATH", args->first, "Catalog path of the link")->required();
    cmd->add_option("TARGET", args->second, "Catalog path the link points to")->required();
    commands.add(cmd, [&options, args] {
        const catalog::Path p = catalogPathArgument(args->first, "PATH");
        const catalog::Path target = catalogPathArgument(args->second, "TARGET");
        auto c = openCatalog(options, OpenMode::kExisting);
        c->makeLink(p, target);
        printDone(options, "made link", p);
    });
}

void addRm(CLI::App& parent, const GlobalOptions& options, CommandSet& commands) {
    auto path = std::make_shared<std::string>();
    CLI::App* cmd = parent.add_subcommand("rm", "Remove an item; a folder with everything under it");
    cmd->add_option("PATH", *path, "Catalog path of the item")->required();
    commands.add(cmd, [&options, path] {
        const catalog::Path p = catalogPathArgument(*path, "PATH");
        auto c = openCatalog(options, OpenMode::kExisting);
        if (!c->exists(p)) throw catalog::CatalogException(catalog::kErrorPathNotFound, p.toString());
        c->remove(p);
        printDone(options, "removed", p);
    });
}

struct GrantArgs {
    std::string path;
    std::string principal;
    std::string rights;
    bool group = false;
};

void addGrant(CLI::App& parent, const GlobalOptions& options, CommandSet& commands) {
    auto args = std::make_shared<GrantArgs>();
    CLI::App* cmd = parent.add_subcommand("grant", "Set one entry of an item's access list");
    cmd->footer("An item's own access list replaces the one it would inherit from its folders; 'none'\n"
                "is stored and denies. everyone and administrators are always groups.");
    cmd->add_option("PATH", args->path, "Catalog path of the item")->required();
    cmd->add_option("PRINCIPAL", args->principal, "User name (or group name with --group)")->required();
    cmd->add_option("RIGHTS", args->rights, "read, write or none")
        ->required()
        ->check(CLI::IsMember({"read", "write", "none"}));
    cmd->add_flag("--group", args->group, "PRINCIPAL names a group");
    commands.add(cmd, [&options, args] {
        const catalog::Path p = catalogPathArgument(args->path, "PATH");
        const String principal = itemNameArgument(args->principal, "PRINCIPAL");
        const bool isGroup = args->group || principal == ManagedCatalog::ksEveryoneGroup ||
                             principal == ManagedCatalog::ksAdministratorsGroup;
        const catalog::Rights r = args->rights == "write" ? catalog::Rights::kWrite
                                  : args->rights == "read" ? catalog::Rights::kRead
                                                           : catalog::Rights::kNone;
        auto c = openCatalog(options, OpenMode::kExisting);
        if (!c->exists(p)) throw catalog::CatalogException(catalog::kErrorPathNotFound, p.toString());
        c->setAccess(p, principal, isGroup, r);
        if (options.json) {
            JsonWriter w;
            w.beginObject().member("result", "ok").member("path", p.toString());
            w.member(isGroup ? "group" : "user", principal).member("rights", args->rights).endObject();
            print(w.str() + "\n");
        } else {
            print("granted " + args->rights + " on " + u8(p.toString()) + " to " + (isGroup ? "group " : "user ") +
                  args->principal + "\n");
        }
    });
}

struct AddUserArgs {
    std::string name;
    std::vector<std::string> groups;
};

// The new password from standard input: its first line, without the line end.
std::string passwordFromInput() {
    std::string line;
    int ch;
    while ((ch = std::getchar()) != EOF && ch != '\n') {
        line.push_back(static_cast<char>(ch));
        if (line.size() > 4096) throw InputError("standard input: a password is at most 4,096 bytes");
    }
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) throw InputError("standard input: no password (give it as the first line)");
    argumentText(line, "the password");  // refuses text that is not UTF-8
    return line;
}

void addPasswd(CLI::App& parent, const GlobalOptions& options, CommandSet& commands) {
    auto name = std::make_shared<std::string>();
    CLI::App* cmd = parent.add_subcommand("passwd", "Set a user's password, read from standard input");
    cmd->footer("Reads the new password from the first line of standard input and stores its Argon2id\n"
                "hash with the user, for signing in to favoritesd. The user must be registered\n"
                "(catalog add-user).");
    cmd->add_option("NAME", *name, "User name")->required();
    commands.add(cmd, [&options, name] {
        const String user = itemNameArgument(*name, "NAME");
        auto c = openCatalog(options, OpenMode::kExisting);
        if (!c->hasUser(user)) throw UsageError("no user " + *name + " (register it with 'catalog add-user')");
        const std::string password = passwordFromInput();
        c->setPasswordHash(user, host::hashPassword(password));
        if (options.json) {
            JsonWriter w;
            w.beginObject().member("result", "ok").member("user", user).endObject();
            print(w.str() + "\n");
        } else {
            print("set the password of " + *name + "\n");
        }
    });
}

void addAddUser(CLI::App& parent, const GlobalOptions& options, CommandSet& commands) {
    auto args = std::make_shared<AddUserArgs>();
    CLI::App* cmd = parent.add_subcommand("add-user", "Register a user and make the user's home folder");
    cmd->footer("Registers the user (or replaces the user's groups) and makes /users/NAME, writable by\n"
                "the user only; the user's favorites object is created there on first use.");
    cmd->add_option("NAME", args->name, "User name")->required();
    cmd->add_option("--group", args->groups, "A group the user belongs to (repeatable)");
    commands.add(cmd, [&options, args] {
        const String name = itemNameArgument(args->name, "NAME");
        std::vector<String> groups;
        for (const std::string& g : args->groups) groups.push_back(itemNameArgument(g, "--group"));
        auto c = openCatalog(options, OpenMode::kExisting);
        c->addUser(name, groups);
        const catalog::Path home = catalog::Path(String(L"/users")) + catalog::ItemName(name, catalog::ItemName::kNone);
        c->makeFolder(home);
        c->clearAccess(home);
        c->setAccess(home, name, false, catalog::Rights::kWrite);
        if (options.json) {
            JsonWriter w;
            w.beginObject().member("result", "ok").member("user", name).member("home", home.toString());
            w.key("groups").beginArray();
            for (const String& g : groups) w.value(g);
            w.endArray().endObject();
            print(w.str() + "\n");
        } else {
            std::string text = "added user " + args->name + " (home " + u8(home.toString()) + ")";
            if (!groups.empty()) {
                text += ", groups:";
                for (const std::string& g : args->groups) text += " " + g;
            }
            print(text + "\n");
        }
    });
}

void addLs(CLI::App& parent, const GlobalOptions& options, CommandSet& commands) {
    auto args = std::make_shared<std::pair<std::string, bool>>("/", false);
    CLI::App* cmd = parent.add_subcommand("ls", "List the items of a folder: type, modified time (UTC), path");
    cmd->add_option("PATH", args->first, "Catalog path of the folder (default: /)");
    cmd->add_flag("-R,--recursive", args->second, "List every folder below too");
    commands.add(cmd, [&options, args] {
        const catalog::Path p = catalogPathArgument(args->first, "PATH");
        auto c = openCatalog(options, OpenMode::kExisting);
        if (!c->exists(p)) throw catalog::CatalogException(catalog::kErrorPathNotFound, p.toString());
        std::vector<ManagedCatalog::Entry> entries;
        collect(*c, p, args->second, entries);
        if (options.json) {
            JsonWriter w;
            w.beginObject().member("path", p.toString()).key("entries").beginArray();
            for (const auto& e : entries) writeEntryJson(w, e);
            w.endArray().endObject();
            print(w.str() + "\n");
        } else {
            std::string out;
            for (const auto& e : entries) out += entryLine(e);
            print(out);
        }
    });
}

void addInfo(CLI::App& parent, const GlobalOptions& options, CommandSet& commands) {
    auto path = std::make_shared<std::string>();
    CLI::App* cmd = parent.add_subcommand("info", "Show an item's type, time, signature and properties");
    cmd->footer("For a link, also its target; with --user, the rights that user has on the item.");
    cmd->add_option("PATH", *path, "Catalog path of the item")->required();
    commands.add(cmd, [&options, path] {
        const catalog::Path p = catalogPathArgument(*path, "PATH");
        auto c = openCatalog(options, OpenMode::kExisting);
        const AccountToken admin = administratorToken();
        catalog::ItemInfo info;
        const catalog::ReturnCode rc = c->getItemInfo(admin, p, info, true, true);
        catalog::errorCodeToException(rc, p.toString(), String(), String(), KIV_FILE_LOCATION(__FILE__, __LINE__));
        const catalog::ItemInfo::Entry& e = info.entry(catalog::kInfoOriginal);
        String target;
        catalog::ReturnCode targetRc = catalog::kSuccess;
        if (e.type & catalog::kLink) {
            catalog::ItemInfo resolved;
            targetRc = c->getItemInfo(admin, p, resolved, false, false);
            for (const ManagedCatalog::Entry& le : c->list(p.getParentPath()))
                if (le.path == p) target = le.linkTarget;
        }
        std::string rights;
        if (!options.user.empty()) {
            const String user = itemNameArgument(options.user, "--user");
            rights = rightsName(c->effectiveRights(c->tokenFor(user), p));
        }
        if (options.json) {
            JsonWriter w;
            w.beginObject().member("path", p.toString()).member("type", itemTypeName(e.type));
            w.member("modified", static_cast<std::int64_t>(e.lastModified));
            if (e.type & catalog::kObject) w.member("signature", e.signature);
            if (e.type & catalog::kLink) {
                w.member("target", target).member("targetStatus", catalog::returnCodeName(targetRc));
            }
            w.key("properties").beginObject();
            for (const auto& [k, v] : e.properties) w.member(u8(k), v);
            w.endObject();
            if (!rights.empty()) w.member("user", options.user).member("rights", rights);
            w.endObject();
            print(w.str() + "\n");
        } else {
            std::string out = "path:       " + u8(p.toString()) + "\n";
            out += "type:       " + std::string(itemTypeName(e.type)) + "\n";
            out += "modified:   " + timeText(e.lastModified) + " UTC\n";
            if (e.type & catalog::kObject) out += "signature:  " + u8(e.signature) + "\n";
            if (e.type & catalog::kLink)
                out += "target:     " + u8(target) + " (" + catalog::returnCodeName(targetRc) + ")\n";
            for (const auto& [k, v] : e.properties) out += "property:   " + u8(k) + "=" + u8(v) + "\n";
            if (!rights.empty()) out += "rights:     " + options.user + " may " + rights + "\n";
            print(out);
        }
    });
}

void addCat(CLI::App& parent, const GlobalOptions& options, CommandSet& commands) {
    auto path = std::make_shared<std::string>();
    CLI::App* cmd = parent.add_subcommand("cat", "Print the stored body of an object");
    cmd->add_option("PATH", *path, "Catalog path of the object")->required();
    commands.add(cmd, [&options, path] {
        const catalog::Path p = catalogPathArgument(*path, "PATH");
        auto c = openCatalog(options, OpenMode::kExisting);
        const std::string body = c->readRaw(p);
        if (options.json) {
            JsonWriter w;
            w.beginObject().member("path", p.toString()).member("body", inputText(body, "the body")).endObject();
            print(w.str() + "\n");
        } else {
            printRaw(body);
        }
    });
}

void addCheck(CLI::App& parent, const GlobalOptions& options, CommandSet& commands) {
    CLI::App* cmd = parent.add_subcommand("check", "Check that the catalog file is sound (SQLite's integrity check)");
    cmd->footer("Exits 0 and prints 'ok' when the file is sound; otherwise prints what is damaged and exits 3.\n"
                "A damaged catalog is best replaced by a backup ('catalog backup').");
    commands.add(cmd, [&options] {
        auto c = openCatalog(options, OpenMode::kExisting);
        catalog::SqliteCatalog* file = sqliteFile(*c);
        if (!file) throw UsageError("'catalog check' checks a catalog file; a PostgreSQL catalog is checked by its server");
        const std::string problems = damage(*file);
        if (options.json) {
            JsonWriter w;
            w.beginObject().member("result", problems.empty() ? "ok" : "damaged");
            if (!problems.empty()) w.member("problems", String::fromUtf8(problems));
            w.endObject();
            print(w.str() + "\n");
        } else {
            print(problems.empty() ? std::string("ok\n") : "damaged: " + problems + "\n");
        }
        if (!problems.empty())
            throw catalog::CatalogException(catalog::kErrorLoadingCatalog, argumentText(options.catalogFile, "--catalog"),
                                            String(L"the file is damaged"));
    });
}

void addBackup(CLI::App& parent, const GlobalOptions& options, CommandSet& commands) {
    auto target = std::make_shared<std::string>();
    CLI::App* cmd = parent.add_subcommand("backup", "Copy the whole catalog file into a new file, safely while servers write");
    cmd->footer("The copy is one consistent snapshot (SQLite's online backup), checked and synced before it\n"
                "appears under FILE; FILE must not exist. Servers and tools may go on writing meanwhile.\n"
                "To go back to a backup, stop the servers and put the copy in place of the catalog file.");
    cmd->add_option("FILE", *target, "The new file")->required();
    commands.add(cmd, [&options, target] {
        argumentText(*target, "FILE");
        auto c = openCatalog(options, OpenMode::kExisting);
        catalog::SqliteCatalog* file = sqliteFile(*c);
        if (!file) throw UsageError("'catalog backup' copies a catalog file; back up a PostgreSQL catalog with pg_dump");
        file->backupTo(*target);
        if (options.json) {
            JsonWriter w;
            w.beginObject().member("result", "ok").member("backup", String::fromUtf8(*target)).endObject();
            print(w.str() + "\n");
        } else {
            print("backed up catalog " + options.catalogFile + " to " + *target + "\n");
        }
    });
}

}  // namespace

void addCatalogCommands(CLI::App& app, const GlobalOptions& options, CommandSet& commands) {
    CLI::App* catalogCmd = app.add_subcommand(
        "catalog", "Administer the catalog file, acting as an administrator (no access checks)");
    catalogCmd->require_subcommand(1);
    addInit(*catalogCmd, options, commands);
    addDemo(*catalogCmd, options, commands);
    addMkdir(*catalogCmd, options, commands);
    addPut(*catalogCmd, options, commands);
    addLink(*catalogCmd, options, commands);
    addRm(*catalogCmd, options, commands);
    addGrant(*catalogCmd, options, commands);
    addAddUser(*catalogCmd, options, commands);
    addPasswd(*catalogCmd, options, commands);
    addLs(*catalogCmd, options, commands);
    addInfo(*catalogCmd, options, commands);
    addCat(*catalogCmd, options, commands);
    addCheck(*catalogCmd, options, commands);
    addBackup(*catalogCmd, options, commands);
}

}  // namespace kiv::tool
