// Operations on the favorites tree, free of the DOM so that they run in the
// browser and under `node --test` alike.
//
// The tree is the `items` array of GET /api/v1/favorites: categories
// {type:"category", name, favoritesPath, children} and catalog objects
// {type:"catalogObject", name, favoritesPath, catalogPath}. Edits that the
// server has no request of its own for (rename, move, reorder) are made on a
// copy here and sent whole as the JSON replacement text (PUT /api/v1/favorites).
// Every edit returns a new array and leaves its input alone.

export const ROOT_PATH = '/root';

/** A failed edit, with a sentence that can be shown as it is. */
export class TreeEditError extends Error {}

export function isCategory(item) {
    return item.type === 'category';
}

export function cloneItems(items) {
    return JSON.parse(JSON.stringify(items ?? []));
}

// ---------------------------------------------------------------------------
// Paths

/**
 * Splits a path ("/shared/Sales/Reports" or "/root/Sales\/Q1") into its
 * components as written, keeping the "\/" escapes of names that hold a slash.
 */
export function splitPath(path) {
    const segments = [];
    let current = '';
    for (let i = 0; i < path.length; ++i) {
        const c = path[i];
        if (c === '\\' && i + 1 < path.length) {
            current += c + path[i + 1];
            ++i;
        } else if (c === '/') {
            if (current !== '') segments.push(current);
            current = '';
        } else {
            current += c;
        }
    }
    if (current !== '') segments.push(current);
    return segments;
}

/** A path component as a person reads it: "Q1\/Q2" is shown as "Q1/Q2". */
export function unescapeName(component) {
    return component.replace(/\\(.)/g, '$1');
}

/** A name as a path component: a "/" inside it is written "\/". */
export function escapeName(name) {
    return name.replace(/\\/g, '\\\\').replace(/\//g, '\\/');
}

export function joinPath(segments) {
    return '/' + segments.join('/');
}

/** The folder a catalog path sits in ("/" for a top-level item). */
export function parentPath(path) {
    const segments = splitPath(path);
    segments.pop();
    return joinPath(segments);
}

/** The name of the last component of a path, unescaped. */
export function lastName(path) {
    const segments = splitPath(path);
    return segments.length ? unescapeName(segments[segments.length - 1]) : '';
}

// ---------------------------------------------------------------------------
// Looking things up

/**
 * Finds the item with the favorites path `favoritesPath`. Answers
 * {item, siblings, index, parent, indexPath} (parent null at the top level)
 * or null.
 */
export function locate(items, favoritesPath) {
    let found = null;
    walk(items, (item, siblings, index, parent, indexPath) => {
        if (item.favoritesPath === favoritesPath) {
            found = { item, siblings, index, parent, indexPath };
            return false;
        }
        return true;
    });
    return found;
}

/** The item at a list of indices ([2, 0] is the first child of the third item). */
export function itemAt(items, indexPath) {
    let list = items;
    let item = null;
    for (const i of indexPath) {
        if (!list || i < 0 || i >= list.length) return null;
        item = list[i];
        list = item.children;
    }
    return item;
}

/**
 * Calls visit(item, siblings, index, parent, indexPath) on every item, depth
 * first in order; visit answering false stops the walk.
 */
export function walk(items, visit) {
    const step = (list, parent, prefix) => {
        for (let i = 0; i < list.length; ++i) {
            const item = list[i];
            const indexPath = [...prefix, i];
            if (visit(item, list, i, parent, indexPath) === false) return false;
            if (isCategory(item) && item.children) {
                if (step(item.children, item, indexPath) === false) return false;
            }
        }
        return true;
    };
    step(items ?? [], null, []);
}

/** Every place a catalog object sits in: [{item, parent}] (parent null for the top level). */
export function occurrences(items, catalogPath) {
    const found = [];
    walk(items, (item, _siblings, _index, parent) => {
        if (!isCategory(item) && item.catalogPath === catalogPath) found.push({ item, parent });
        return true;
    });
    return found;
}

/** Counts of categories and catalog objects in a list, subtrees included. */
export function countItems(items) {
    const counts = { categories: 0, objects: 0 };
    walk(items, (item) => {
        if (isCategory(item)) ++counts.categories;
        else ++counts.objects;
        return true;
    });
    return counts;
}

/**
 * Every category in tree order, for choosing one: [{favoritesPath, label,
 * depth, names}] where label is "Sales / Q1". The top level is not in it.
 */
export function categoryList(items) {
    const list = [];
    const step = (children, names) => {
        for (const item of children ?? []) {
            if (!isCategory(item)) continue;
            const path = [...names, item.name];
            list.push({ favoritesPath: item.favoritesPath, label: path.join(' / '), depth: path.length - 1, names: path });
            step(item.children, path);
        }
    };
    step(items, []);
    return list;
}

/** Whether `favoritesPath` is `ancestor` or lies inside it. */
export function isWithin(items, favoritesPath, ancestor) {
    const found = locate(items, ancestor);
    if (!found) return false;
    if (found.item.favoritesPath === favoritesPath) return true;
    let inside = false;
    walk(found.item.children ?? [], (item) => {
        if (item.favoritesPath === favoritesPath) {
            inside = true;
            return false;
        }
        return true;
    });
    return inside;
}

/** A text that differs exactly when two trees differ in what they show. */
export function fingerprint(items) {
    const strip = (list) => (list ?? []).map((item) => isCategory(item)
        ? ['c', item.name, strip(item.children)]
        : ['o', item.name, item.catalogPath]);
    return JSON.stringify(strip(items));
}

// ---------------------------------------------------------------------------
// The JSON replacement text

/** The tree in the replacement format that PUT /api/v1/favorites takes. */
export function toReplacement(items) {
    return (items ?? []).map((item) => isCategory(item)
        ? { type: '1', name: item.name, children: toReplacement(item.children) }
        : { type: '0', path: item.catalogPath });
}

/**
 * Reads a replacement text (an export, or a file a person wrote) and answers
 * {replacement, items, counts}: the array to send, the same tree in the item
 * shape for showing it, and its counts. A text that is not a usable tree
 * throws a TreeEditError that says what is wrong.
 */
export function parseReplacement(text) {
    let value;
    try {
        value = JSON.parse(text);
    } catch {
        throw new TreeEditError('This file is not JSON text, so it cannot be a favorites export.');
    }
    if (!Array.isArray(value)) {
        throw new TreeEditError('This file does not hold a list of favorites: a favorites export is a JSON array.');
    }
    const convert = (list, parentPath, where) => list.map((entry, i) => {
        const place = `item ${i + 1}${where}`;
        if (entry === null || typeof entry !== 'object' || Array.isArray(entry)) {
            throw new TreeEditError(`The ${place} is not a favorite.`);
        }
        const type = String(entry.type);
        if (type === '1') {
            if (typeof entry.name !== 'string' || entry.name.trim() === '') {
                throw new TreeEditError(`The category at ${place} has no name.`);
            }
            if (entry.children !== undefined && !Array.isArray(entry.children)) {
                throw new TreeEditError(`The children of category “${entry.name}” are not a list.`);
            }
            const favoritesPath = `${parentPath}/${escapeName(entry.name)}`;
            return {
                type: 'category', name: entry.name, favoritesPath,
                children: convert(entry.children ?? [], favoritesPath, ` in “${entry.name}”`),
            };
        }
        if (type === '0') {
            if (typeof entry.path !== 'string' || !entry.path.startsWith('/')) {
                throw new TreeEditError(`The favorite at ${place} has no catalog path.`);
            }
            return {
                type: 'catalogObject', name: lastName(entry.path),
                favoritesPath: `${parentPath}/${escapeName(lastName(entry.path))}`, catalogPath: entry.path,
            };
        }
        throw new TreeEditError(`The ${place} is neither a category nor a catalog object.`);
    });
    const items = convert(value, ROOT_PATH, '');
    return { replacement: toReplacement(items), items, counts: countItems(items) };
}

// ---------------------------------------------------------------------------
// Edits

function siblingsOf(items, categoryPath) {
    if (!categoryPath || categoryPath === ROOT_PATH) return { list: items, category: null };
    const found = locate(items, categoryPath);
    if (!found || !isCategory(found.item)) throw new TreeEditError('That category is no longer in your favorites.');
    found.item.children ??= [];
    return { list: found.item.children, category: found.item };
}

function describe(item) {
    return isCategory(item) ? `the category “${item.name}”` : `“${item.name}”`;
}

function placeName(category) {
    return category ? `“${category.name}”` : 'the top level';
}

/** Refuses a list that would hold the same category name or catalog object twice. */
function checkClash(list, item, category, ignore) {
    for (const other of list) {
        if (other === ignore) continue;
        if (isCategory(item) && isCategory(other) && other.name === item.name) {
            throw new TreeEditError(`${placeName(category).replace(/^t/, 'T')} already has a category named “${item.name}”.`);
        }
        if (!isCategory(item) && !isCategory(other) && other.catalogPath === item.catalogPath) {
            throw new TreeEditError(`${placeName(category).replace(/^t/, 'T')} already holds “${item.name}”.`);
        }
    }
}

/**
 * Moves an item `delta` places among its siblings (-1 up, +1 down). Answers
 * {items, indexPath} with the item's new position.
 */
export function moveBy(items, favoritesPath, delta) {
    const copy = cloneItems(items);
    const found = locate(copy, favoritesPath);
    if (!found) throw new TreeEditError('That favorite is no longer there.');
    const to = found.index + delta;
    if (to < 0) throw new TreeEditError(`${describe(found.item)} is already first.`);
    if (to >= found.siblings.length) throw new TreeEditError(`${describe(found.item)} is already last.`);
    const [moved] = found.siblings.splice(found.index, 1);
    found.siblings.splice(to, 0, moved);
    return { items: copy, indexPath: [...found.indexPath.slice(0, -1), to] };
}

/**
 * Moves an item into the category `categoryPath` (ROOT_PATH or "" for the top
 * level) at position `index` of that category as it is before the move (the
 * end when left out). Answers {items, indexPath}.
 */
export function moveTo(items, favoritesPath, categoryPath, index) {
    const copy = cloneItems(items);
    const found = locate(copy, favoritesPath);
    if (!found) throw new TreeEditError('That favorite is no longer there.');
    const target = categoryPath || ROOT_PATH;
    if (isCategory(found.item) && target !== ROOT_PATH && isWithin(copy, target, favoritesPath)) {
        throw new TreeEditError(`The category “${found.item.name}” cannot be moved into itself.`);
    }
    const { list, category } = siblingsOf(copy, target);
    checkClash(list, found.item, category, found.item);
    let at = index ?? list.length;
    if (list === found.siblings && found.index < at) --at;
    found.siblings.splice(found.index, 1);
    at = Math.max(0, Math.min(at, list.length));
    list.splice(at, 0, found.item);
    const parentLocation = category ? locate(copy, category.favoritesPath).indexPath : [];
    return { items: copy, indexPath: [...parentLocation, at] };
}

/** Renames a category. Answers {items, indexPath}. */
export function renameCategory(items, favoritesPath, newName) {
    const name = (newName ?? '').trim();
    if (name === '') throw new TreeEditError('A category needs a name.');
    const copy = cloneItems(items);
    const found = locate(copy, favoritesPath);
    if (!found || !isCategory(found.item)) throw new TreeEditError('That category is no longer in your favorites.');
    checkClash(found.siblings, { type: 'category', name }, found.parent, found.item);
    found.item.name = name;
    return { items: copy, indexPath: found.indexPath };
}

/**
 * The tree with only the catalog objects whose favorites paths are in
 * `keep` (a Set); categories always stay.
 */
export function keepObjects(items, keep) {
    return (items ?? []).flatMap((item) => {
        if (isCategory(item)) return [{ ...item, children: keepObjects(item.children, keep) }];
        return keep.has(item.favoritesPath) ? [item] : [];
    });
}

/** "1 category and 3 favorites", "no favorites", ... */
export function describeCounts({ categories, objects }) {
    const segments = [];
    if (categories) segments.push(`${categories} ${categories === 1 ? 'category' : 'categories'}`);
    if (objects) segments.push(`${objects} ${objects === 1 ? 'favorite' : 'favorites'}`);
    if (!segments.length) return 'nothing';
    return segments.join(' and ');
}
