// The favorites commands. Each one opens the user's favorites as a host does
// (FavoritesSession: a FavoritesManager over the user's favorites object) and
// calls the manager's public operations only.
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "jsonwriter.h"
#include "favoritesopen.h"
#include "items.h"
#include "soapfavorites.h"
#include "qz/platform/gd.h"
#include "qz/platform/soap.h"
#include "textinput.h"
#include "toolerrors.h"

namespace kiv::tool {

namespace {

std::string u8(const String& s) { return s.toUtf8(); }

FavoritesItems topLevelItems(FavoritesSession& s) {
    FavoritesItems items;
    checkFavorites(s.manager().getFavorites(items, String(), String()),
                   FavoritesManager::getRootFolderPath().toString());
    return items;
}

struct Counts {
    int categories = 0;
    int catalogObjects = 0;
};

void count(const FavoritesItems& items, Counts& c) {
    for (const Handle<FavoritesItem>& item : items) {
        if (isCategory(*item)) {
            ++c.categories;
            count(childrenOf(item), c);
        } else {
            ++c.catalogObjects;
        }
    }
}

// The result line of an edit: text, or {"result":"kSuccess",<extra>}.
void printEdit(const GlobalOptions& options, const std::string& text, const std::function<void(JsonWriter&)>& extra) {
    if (options.json) {
        JsonWriter w;
        w.beginObject().member("result", favorites::returnCodeName(favorites::kSuccess));
        extra(w);
        w.endObject();
        print(w.str() + "\n");
    } else {
        print(text + "\n");
    }
}

std::string counted(int n, const char* one, const char* many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

void printReplaced(const GlobalOptions& options, FavoritesSession& s) {
    Counts c;
    count(topLevelItems(s), c);
    printEdit(options,
              "replaced the favorites of " + u8(s.user().getUserName()) + ": " +
                  counted(c.categories, "category", "categories") + ", " +
                  counted(c.catalogObjects, "catalog object", "catalog objects"),
              [&](JsonWriter& w) { w.member("categories", c.categories).member("catalogObjects", c.catalogObjects); });
}

void addTree(CLI::App& app, const GlobalOptions& options, CommandSet& commands) {
    CLI::App* cmd = app.add_subcommand("tree", "Show the user's whole favorites tree");
    commands.add(cmd, [&options] {
        FavoritesSession s(options, Intent::kRead);
        const FavoritesItems items = topLevelItems(s);
        if (options.json) {
            JsonWriter w;
            w.beginObject().member("user", s.user().getUserName()).member("favorites", s.favoritesPath().toString());
            w.key("items").beginArray();
            for (const Handle<FavoritesItem>& item : items) writeItemJson(w, item, true);
            w.endArray().endObject();
            print(w.str() + "\n");
        } else {
            print(items.empty() ? std::string("(no favorites)\n") : treeText(items));
        }
    });
}

struct LsArgs {
    std::string category;
    std::string filter;
};

void addLs(CLI::App& app, const GlobalOptions& options, CommandSet& commands) {
    auto args = std::make_shared<LsArgs>();
    CLI::App* cmd = app.add_subcommand("ls", "List the items of one category");
    cmd->footer("Filters: reports (signature report1), dashboards (dashboard folders and pages), readable.\n"
                "Without --filter every object the user may read is listed; categories are always listed.");
    cmd->add_option("CATEGORY", args->category,
                    "The category: a name or path relative to the root (Sales, Sales/Q1) or a favorites path "
                    "(/root/Sales); default: the root");
    cmd->add_option("--filter", args->filter, "Name of a catalog object filter");
    commands.add(cmd, [&options, args] {
        const String filter = argumentText(args->filter, "--filter");
        String category;
        if (!args->category.empty()) category = categoryArgument(args->category, "CATEGORY").toString();
        FavoritesSession s(options, Intent::kRead);
        FavoritesItems items;
        checkFavorites(s.manager().getFavorites(items, category, filter), category);
        if (options.json) {
            JsonWriter w;
            w.beginObject().member("category", category.empty() ? FavoritesManager::getRootFolderPath().toString()
                                                                : category);
            w.member("filter", filter).key("items").beginArray();
            for (const Handle<FavoritesItem>& item : items) writeItemJson(w, item, false);
            w.endArray().endObject();
            print(w.str() + "\n");
        } else {
            print(listText(items));
        }
    });
}

void addIs(CLI::App& app, const GlobalOptions& options, CommandSet& commands) {
    auto paths = std::make_shared<std::vector<std::string>>();
    CLI::App* cmd = app.add_subcommand("is", "Tell for each catalog path whether it is a favorite");
    cmd->footer("One line per path, \"yes\" or \"no\"; the exit status is 0 either way.");
    cmd->add_option("PATH", *paths, "Catalog paths")->required();
    commands.add(cmd, [&options, paths] {
        std::vector<catalog::Path> checked;
        for (const std::string& p : *paths) checked.push_back(catalogPathArgument(p, "PATH"));
        FavoritesSession s(options, Intent::kRead);
        JsonWriter w;
        std::string text;
        w.beginObject().key("results").beginArray();
        for (const catalog::Path& p : checked) {
            const bool fav = s.manager().isFavorite(p);
            w.beginObject().member("path", p.toString()).member("favorite", fav).endObject();
            text += (fav ? "yes  " : "no   ") + u8(p.toString()) + "\n";
        }
        w.endArray().endObject();
        print(options.json ? w.str() + "\n" : text);
    });
}

struct AddArgs {
    std::string catalogPath;
    std::string category;
};

void addAdd(CLI::App& app, const GlobalOptions& options, CommandSet& commands) {
    auto args = std::make_shared<AddArgs>();
    CLI::App* cmd = app.add_subcommand("add", "Add a catalog object to a category");
    cmd->footer("The user must be able to read the object; the category must exist (see mkcat).");
    cmd->add_option("CATALOGPATH", args->catalogPath, "Catalog path of the object")->required();
    cmd->add_option("--category", args->category, "The category (default: the root)");
    commands.add(cmd, [&options, args] {
        const catalog::Path path = catalogPathArgument(args->catalogPath, "CATALOGPATH");
        const catalog::Path category = categoryArgument(args->category, "--category");
        FavoritesSession s(options, Intent::kWrite);
        Handle<FavoritesItem> item;
        checkFavorites(s.manager().createFavoriteCatalogObject(path.toString(), category.toString(), item),
                       path.toString());
        const favorites::ReturnCode rc = s.manager().addItem(item);
        checkFavorites(rc,
                       rc == favorites::kErrorInvalidFavoritesPath ? category.toString() : path.toString());
        printEdit(options, "added " + u8(path.toString()) + " to " + u8(category.toString()),
                  [&](JsonWriter& w) { writeItemJson(w.key("item"), item, false); });
    });
}

struct MkcatArgs {
    std::string name;
    std::string category;
};

void addMkcat(CLI::App& app, const GlobalOptions& options, CommandSet& commands) {
    auto args = std::make_shared<MkcatArgs>();
    CLI::App* cmd = app.add_subcommand("mkcat", "Make a category inside another one");
    cmd->add_option("NAME", args->name, "Name of the new category")->required();
    cmd->add_option("--category", args->category, "The category that holds it (default: the root)");
    commands.add(cmd, [&options, args] {
        const String name = itemNameArgument(args->name, "NAME");
        const catalog::Path parent = categoryArgument(args->category, "--category");
        FavoritesSession s(options, Intent::kWrite);
        Handle<FavoritesItem> item;
        checkFavorites(s.manager().createFavoriteCategory(parent.toString(), name, item), name);
        const favorites::ReturnCode rc = s.manager().addItem(item);
        checkFavorites(
            rc, rc == favorites::kErrorInvalidFavoritesPath ? parent.toString() : item->getPath().toString());
        printEdit(options, "made category " + u8(item->getPath().toString()),
                  [&](JsonWriter& w) { writeItemJson(w.key("item"), item, false); });
    });
}

struct RmArgs {
    std::string catalogPath;
    std::string category;
    bool everywhere = false;
};

void addRm(CLI::App& app, const GlobalOptions& options, CommandSet& commands) {
    auto args = std::make_shared<RmArgs>();
    CLI::App* cmd = app.add_subcommand("rm", "Remove a catalog object from a category, or from every category");
    cmd->add_option("CATALOGPATH", args->catalogPath, "Catalog path of the object")->required();
    CLI::Option* cat = cmd->add_option("--category", args->category, "The category (default: the root)");
    cmd->add_flag("--everywhere", args->everywhere, "Remove it from every category of the tree")->excludes(cat);
    commands.add(cmd, [&options, args] {
        const catalog::Path path = catalogPathArgument(args->catalogPath, "CATALOGPATH");
        const catalog::Path category = categoryArgument(args->category, "--category");
        FavoritesSession s(options, Intent::kWrite);
        // The category must be there: deleting below a missing one is not a
        // request the manager can answer.
        if (!args->everywhere && s.manager().findCategory(category).isNull())
            throw FavoritesFailure(favorites::kErrorInvalidFavoritesPath, u8(category.toString()));
        Handle<FavoritesItem> item;
        checkFavorites(s.manager().createFavoriteCatalogObject(path.toString(), category.toString(), item),
                       path.toString());
        checkFavorites(s.manager().deleteItem(item, args->everywhere), path.toString());
        printEdit(options,
                  "removed " + u8(path.toString()) + " from " +
                      (args->everywhere ? std::string("every category") : u8(category.toString())),
                  [&](JsonWriter& w) {
                      w.member("catalogPath", path.toString());
                      if (args->everywhere) w.member("everywhere", true);
                      else w.member("category", category.toString());
                  });
    });
}

void addRmcat(CLI::App& app, const GlobalOptions& options, CommandSet& commands) {
    auto arg = std::make_shared<std::string>();
    CLI::App* cmd = app.add_subcommand("rmcat", "Remove a category with everything in it");
    cmd->add_option("CATEGORY", *arg, "The category (Sales, Sales/Q1 or /root/Sales)")->required();
    commands.add(cmd, [&options, arg] {
        const catalog::Path category = categoryArgument(*arg, "CATEGORY");
        if (category == FavoritesManager::getRootFolderPath())
            throw UsageError("the root category cannot be removed (use replace-json with [] to empty the favorites)");
        const catalog::Path parent = category.getParentPath();
        FavoritesSession s(options, Intent::kWrite);
        Handle<FavoritesItem> item;
        checkFavorites(
            s.manager().createFavoriteCategory(parent.toString(), category.getItemName().toString(), item),
            category.toString());
        const favorites::ReturnCode rc = s.manager().deleteItem(item, false);
        checkFavorites(rc,
                       rc == favorites::kErrorInvalidFavoritesPath ? parent.toString() : category.toString());
        printEdit(options, "removed category " + u8(category.toString()),
                  [&](JsonWriter& w) { w.member("category", category.toString()); });
    });
}

// The insert of a message about an item of a replacement input.
String inputItemLabel(const std::string& file) {
    return argumentText("an item of " + (file == "-" ? std::string("standard input") : file), "FILE");
}

void addReplaceJson(CLI::App& app, const GlobalOptions& options, CommandSet& commands) {
    auto file = std::make_shared<std::string>();
    CLI::App* cmd = app.add_subcommand("replace-json", "Replace the whole favorites tree from a JSON file");
    cmd->footer("The file holds a JSON array of items, each a category\n"
                "  {\"type\":\"1\",\"name\":NAME,\"children\":[ITEMS...]}\n"
                "or a catalog object\n"
                "  {\"type\":\"0\",\"path\":CATALOGPATH}\n"
                "Text that is not a JSON array is refused and the favorites are left as they are.\n"
                "'export --format json' writes this format.");
    cmd->add_option("FILE", *file, "The JSON file, or - for standard input")->required();
    commands.add(cmd, [&options, file] {
        const std::string name = *file == "-" ? std::string("standard input") : *file;
        const String text = inputText(readInput(*file), name);
        const JsonReplacementProblem problem = jsonReplacementProblem(text);
        if (problem != JsonReplacementProblem::kNone) throw InputError(name + ": " + describe(problem));
        FavoritesSession s(options, Intent::kWrite);
        checkFavorites(s.manager().updateAll(text), inputItemLabel(*file));
        printReplaced(options, s);
    });
}

void addReplaceSoap(CLI::App& app, const GlobalOptions& options, CommandSet& commands) {
    auto file = std::make_shared<std::string>();
    CLI::App* cmd = app.add_subcommand("replace-soap", "Replace the whole favorites tree from a SOAP request");
    cmd->footer("The file holds a SOAP 1.1 request envelope whose operation element (updateFavorites)\n"
                "holds favoriteItem structures: name, path, type (0: catalog object, else category),\n"
                "then catalogPath for a catalog object or nested favoriteItem elements for a category.");
    cmd->add_option("FILE", *file, "The envelope file, or - for standard input")->required();
    commands.add(cmd, [&options, file] {
        const std::string name = *file == "-" ? std::string("standard input") : *file;
        const std::string bytes = readInput(*file);
        std::unique_ptr<SoapRequest> request;
        try {
            request = SoapRequest::parse(bytes);
        } catch (const SoapException& e) {
            throw InputError(name + ": not a usable SOAP request envelope (" + e.getMessageText().toUtf8() + ")");
        }
        FavoritesSession s(options, Intent::kWrite);
        checkFavorites(s.manager().updateAll(host::favoriteItemsOf(*request)), inputItemLabel(*file));
        printReplaced(options, s);
    });
}

void addExport(CLI::App& app, const GlobalOptions& options, CommandSet& commands) {
    auto format = std::make_shared<std::string>();
    CLI::App* cmd = app.add_subcommand("export", "Print the whole favorites tree as XML or JSON");
    cmd->footer("XML: the stored favorites document, as the library wrote it. JSON: the format replace-json reads.");
    cmd->add_option("--format", *format, "xml or json (default: xml, or json with --json)")
        ->check(CLI::IsMember({"xml", "json"}));
    commands.add(cmd, [&options, format] {
        FavoritesSession s(options, Intent::kRead);
        const bool json = format->empty() ? options.json : *format == "json";
        if (json) return printRaw(exportJson(topLevelItems(s)));
        std::string document;
        catalog::ItemInfo info;
        const catalog::ReturnCode rc = readFavoritesDocument(s.catalog(), s.user(), s.favoritesPath(), document, info);
        catalog::errorCodeToException(rc, s.favoritesPath().toString(), String(), String(),
                                      KIV_FILE_LOCATION(__FILE__, __LINE__));
        printRaw(document);
    });
}

std::string versionContent(const FavoritesDocumentCheck& c) {
    if (!c.readable()) return "cannot be read: " + c.problem;
    return counted(static_cast<int>(c.categories), "category", "categories") + ", " +
           counted(static_cast<int>(c.items), "catalog object", "catalog objects");
}

void addHistory(CLI::App& app, const GlobalOptions& options, CommandSet& commands) {
    CLI::App* cmd = app.add_subcommand("history", "List the earlier versions of the favorites kept in the catalog");
    cmd->footer("Every change of the favorites keeps the version it replaces (the last\n"
                "--keep-versions, 20 unless told otherwise). 'restore N' puts version N back.");
    commands.add(cmd, [&options] {
        FavoritesSession s(options, Intent::kRead, FavoritesSession::Manager::kNone);
        const std::vector<FavoritesVersion> versions = favoritesHistory(s.catalog(), s.user(), s.favoritesPath());
        const std::string problem = storedFavoritesProblem(s.catalog(), s.user(), s.favoritesPath());
        if (options.json) {
            JsonWriter w;
            writeHistoryJson(w, s.favoritesPath(), versions, problem);
            print(w.str() + "\n");
            return;
        }
        std::string text;
        if (!problem.empty()) text += "the stored favorites cannot be read: " + problem + "\n";
        if (versions.empty()) text += "no earlier versions of " + s.favoritesPath().toUtf8() + " are kept\n";
        for (const FavoritesVersion& v : versions)
            text += std::to_string(v.version.number) + "  " + timeText(v.version.modified) + "  replaced " +
                    timeText(v.version.replaced) + "  " + std::to_string(v.version.size) + " bytes  " +
                    versionContent(v.content) + "\n";
        print(text);
    });
}

void addRestore(CLI::App& app, const GlobalOptions& options, CommandSet& commands) {
    auto number = std::make_shared<std::int64_t>(0);
    CLI::App* cmd = app.add_subcommand("restore", "Put an earlier version of the favorites back (see 'history')");
    cmd->footer("The version restored becomes the newest; the one it replaces is kept, so a restore\n"
                "can itself be undone.");
    cmd->add_option("N", *number, "The version number that 'history' shows")->required();
    commands.add(cmd, [&options, number] {
        FavoritesSession s(options, Intent::kWrite, FavoritesSession::Manager::kNone);
        const FavoritesDocumentCheck c = restoreFavoritesVersion(s.catalog(), s.user(), s.favoritesPath(), *number);
        printEdit(options, "restored version " + std::to_string(*number) + " of " + s.favoritesPath().toUtf8() + ": " +
                               versionContent(c),
                  [&](JsonWriter& w) {
                      w.member("restored", *number)
                          .member("categories", static_cast<std::int64_t>(c.categories))
                          .member("catalogObjects", static_cast<std::int64_t>(c.items));
                  });
    });
}

}  // namespace

void addFavoritesCommands(CLI::App& app, const GlobalOptions& options, CommandSet& commands) {
    addTree(app, options, commands);
    addLs(app, options, commands);
    addIs(app, options, commands);
    addAdd(app, options, commands);
    addMkcat(app, options, commands);
    addRm(app, options, commands);
    addRmcat(app, options, commands);
    addReplaceJson(app, options, commands);
    addReplaceSoap(app, options, commands);
    addExport(app, options, commands);
    addHistory(app, options, commands);
    addRestore(app, options, commands);
}

}  // namespace kiv::tool
