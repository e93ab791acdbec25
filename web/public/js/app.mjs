// The favorites page: sign-in, the catalog browser with its stars, and the
// favorites panel (the tree, its edits, filter, undo and history, export and
// import).
//
// The page keeps the signed-in session, the catalog folder shown (in the
// address's fragment, so that links, Back and reloads work) and the user's
// favorites tree as last read from the server. Edits the API has a request
// for (add, remove, make a category) use it; rename, move and reorder build
// the whole new tree here and send it with PUT /api/v1/favorites, after
// checking that the stored tree is still the one the edit was made on.
//
// The server keeps the version every change replaces. Undo writes back the
// newest of them; since that restore keeps the version it replaces in turn,
// a second Undo undoes the first. The history dialog lists the versions and
// restores any readable one.

import * as api from './api.mjs';
import { dialogOpen, showDialog } from './dialog.mjs';
import { focusKey, focusedKey, h, icon, setMessage, uniqueId } from './dom.mjs';
import {
    ROOT_PATH, TreeEditError, categoryList, countItems, describeCounts, escapeName, fingerprint, isCategory,
    isWithin, itemAt, joinPath, keepObjects, locate, moveBy, moveTo, occurrences, parentPath,
    parseReplacement, renameCategory, splitPath, toReplacement, unescapeName,
} from './tree.mjs';

const CHANGED_ELSEWHERE =
    'Your favorites were changed elsewhere (in another tab or by another program); they have been reloaded.';

const KINDS = {
    folder: { icon: 'folder', label: 'Folder' },
    dashboard: { icon: 'dashboard', label: 'Dashboard' },
    report: { icon: 'report', label: 'Report' },
    dashboardPage: { icon: 'dashboardPage', label: 'Dashboard page' },
    link: { icon: 'link', label: 'Link' },
    object: { icon: 'object', label: 'Item' },
};

const $ = (id) => document.getElementById(id);

const els = {
    loading: $('loading'),
    account: $('account'),
    accountName: $('account-name'),
    signOut: $('sign-out'),
    signInView: $('sign-in-view'),
    signInForm: $('sign-in-form'),
    signInUser: $('sign-in-user'),
    signInPassword: $('sign-in-password'),
    signInSubmit: $('sign-in-submit'),
    signInError: $('sign-in-error'),
    signInStatus: $('sign-in-status'),
    appView: $('app-view'),
    breadcrumbs: $('breadcrumbs'),
    folderHeading: $('folder-heading'),
    catalogError: $('catalog-error'),
    catalogStatus: $('catalog-status'),
    catalogList: $('catalog-list'),
    favoritesHeading: $('favorites-heading'),
    newCategory: $('new-category'),
    undo: $('undo'),
    history: $('history'),
    warning: $('favorites-warning'),
    warningText: $('favorites-warning-text'),
    warningResult: $('favorites-warning-result'),
    restoreReadable: $('restore-readable'),
    filter: $('filter'),
    filterError: $('filter-error'),
    notice: $('favorites-notice'),
    favoritesError: $('favorites-error'),
    hint: $('favorites-hint'),
    tree: $('favorites-tree'),
    rootDrop: $('favorites-root-drop'),
    importFile: $('import-file'),
    importError: $('import-error'),
};

const state = {
    session: null,
    path: '/',
    listing: null, // {path, items} of the folder shown
    listingError: '',
    highlight: '', // catalog path of the item a favorite's link led to
    highlightFolder: '', // the folder that item is in
    tree: [],
    treeLoaded: false,
    filter: '',
    filterKeep: null, // favorites paths the filter admits, while a filter is on
    rowError: null, // {key, message}: the failure of an action on one row
    versions: null, // the kept versions as last read, newest first (null: not read yet)
    versionsFailed: false, // the last reading of the versions failed
    restoring: false, // an undo or restore is under way
    warning: '', // why the stored favorites cannot be read, as the server says
};

let listingSequence = 0;
let treeSequence = 0;
let historySequence = 0;
let busy = 0;
let lastRefresh = 0;
let dragging = '';

// ---------------------------------------------------------------------------
// Errors

/** The tree a PUT edit was made on is no longer the stored one. */
class StaleTree extends Error {
    constructor() {
        super(CHANGED_ELSEWHERE);
    }

    get outOfSync() {
        return true;
    }
}

/**
 * Takes over the failures that concern the whole page rather than the action:
 * a session that has ended, favorites changed elsewhere. Answers whether it did.
 */
function handleCommon(error) {
    if (error?.signedOut) {
        sessionEnded();
        return true;
    }
    if (error?.outOfSync) {
        reloadAfterConflict();
        return true;
    }
    return false;
}

function dialogErrors(error) {
    return handleCommon(error) ? 'close' : 'show';
}

async function reloadAfterConflict() {
    try {
        if (!(await reloadTree())) renderTree();
        await loadListing(state.path);
    } catch (error) {
        if (!handleCommon(error)) setMessage(els.favoritesError, error.message);
    }
    setMessage(els.notice, CHANGED_ELSEWHERE);
}

function showRowError(key, error) {
    state.rowError = { key, message: error?.message || 'This could not be done.' };
}

/** Runs one change at a time, in the order asked, and marks the page busy meanwhile. */
let chain = Promise.resolve();
function exclusive(task) {
    const next = chain.then(async () => {
        busy += 1;
        try {
            return await task();
        } finally {
            busy -= 1;
        }
    });
    chain = next.catch(() => {});
    return next;
}

// ---------------------------------------------------------------------------
// Session

async function start() {
    wireEvents();
    try {
        signedIn(await api.getSession(), { focus: false });
    } catch (error) {
        showSignIn(error.status === 401 ? '' : error.message);
    } finally {
        els.loading.hidden = true;
    }
}

function showSignIn(message = '', status = '') {
    state.session = null;
    state.tree = [];
    state.treeLoaded = false;
    state.listing = null;
    state.versions = null;
    state.versionsFailed = false;
    renderUndo();
    showWarning('');
    api.setCsrfToken('');
    els.appView.hidden = true;
    els.account.hidden = true;
    els.signInView.hidden = false;
    setMessage(els.signInError, message);
    setMessage(els.signInStatus, status);
    els.signInPassword.value = '';
    els.signInUser.focus();
    document.title = 'Sign in · Catalog and favorites';
}

function sessionEnded() {
    if (!state.session) return;
    for (const dialog of document.querySelectorAll('dialog[open]')) dialog.close();
    showSignIn('', 'Your session has ended. Sign in again to continue.');
}

function signedIn(session, { focus }) {
    state.session = session;
    api.setCsrfToken(session.csrfToken);
    els.signInView.hidden = true;
    els.appView.hidden = false;
    els.account.hidden = false;
    els.accountName.textContent = session.user;
    setMessage(els.notice, '');
    setMessage(els.favoritesError, '');
    state.path = pathFromHash();
    document.title = 'Catalog and favorites';
    loadListing(state.path, { focus });
    reloadTree().catch((error) => {
        if (!handleCommon(error)) setMessage(els.favoritesError, error.message);
    });
}

async function submitSignIn(event) {
    event.preventDefault();
    const user = els.signInUser.value.trim();
    const password = els.signInPassword.value;
    els.signInUser.removeAttribute('aria-invalid');
    els.signInPassword.removeAttribute('aria-invalid');
    setMessage(els.signInStatus, '');
    if (!user || !password) {
        setMessage(els.signInError, 'Enter your user name and your password.');
        (user ? els.signInPassword : els.signInUser).setAttribute('aria-invalid', 'true');
        (user ? els.signInPassword : els.signInUser).focus();
        return;
    }
    els.signInSubmit.disabled = true;
    setMessage(els.signInError, '');
    try {
        const session = await api.signIn(user, password);
        signedIn(session, { focus: true });
    } catch (error) {
        setMessage(els.signInError, signInFailure(error));
        els.signInPassword.value = '';
        els.signInPassword.setAttribute('aria-invalid', 'true');
        els.signInPassword.focus();
    } finally {
        els.signInSubmit.disabled = false;
    }
}

function signInFailure(error) {
    if (error.status === 429) {
        const seconds = Number.parseInt(error.retryAfter ?? '', 10);
        if (Number.isFinite(seconds) && seconds >= 0) {
            return `Too many failed sign-ins; try again in ${seconds} ${seconds === 1 ? 'second' : 'seconds'}.`;
        }
        return 'Too many failed sign-ins; try again later.';
    }
    return error.message;
}

async function submitSignOut() {
    els.signOut.disabled = true;
    try {
        await api.signOut();
    } catch {
        // The session is gone either way: signed out elsewhere, or expired.
    } finally {
        els.signOut.disabled = false;
    }
    showSignIn('', 'You have signed out.');
}

// ---------------------------------------------------------------------------
// Catalog

function pathFromHash() {
    const raw = location.hash.slice(1);
    if (!raw) return '/';
    let path;
    try {
        path = decodeURIComponent(raw);
    } catch {
        path = raw;
    }
    return path.startsWith('/') ? path : '/';
}

function hashFor(path) {
    return `#${path.split('/').map(encodeURIComponent).join('/')}`;
}

async function loadListing(path, { focus = false } = {}) {
    const sequence = ++listingSequence;
    els.catalogList.setAttribute('aria-busy', 'true');
    try {
        const listing = await api.catalogChildren(path);
        if (sequence !== listingSequence || !state.session) return;
        state.listing = { path: listing.path ?? path, items: listing.items ?? [] };
        state.listingError = '';
    } catch (error) {
        if (sequence !== listingSequence) return;
        if (error.signedOut) {
            sessionEnded();
            return;
        }
        state.listing = { path, items: [] };
        state.listingError = error.message;
    } finally {
        if (sequence === listingSequence) els.catalogList.removeAttribute('aria-busy');
    }
    renderListing();
    if (focus) els.folderHeading.focus();
}

function renderBreadcrumbs(path) {
    const segments = splitPath(path);
    const crumbs = [{ label: 'Catalog', path: '/' }];
    segments.forEach((segment, i) => crumbs.push({ label: unescapeName(segment), path: joinPath(segments.slice(0, i + 1)) }));
    els.breadcrumbs.replaceChildren(...crumbs.map((crumb, i) => h('li', {},
        i === crumbs.length - 1
            ? h('span', { 'aria-current': 'page' }, crumb.label)
            : h('a', { href: hashFor(crumb.path), dataset: { focusKey: `crumb:${crumb.path}` } }, crumb.label))));
}

function renderListing() {
    const keep = focusedKey();
    const listing = state.listing;
    if (!listing) return;
    renderBreadcrumbs(listing.path);
    const segments = splitPath(listing.path);
    const folderName = segments.length ? unescapeName(segments[segments.length - 1]) : 'All folders';
    els.folderHeading.textContent = folderName;
    els.catalogList.setAttribute('aria-label', `Items in ${folderName}`);
    document.title = `${folderName} · Catalog and favorites`;
    setMessage(els.catalogError, state.listingError);

    const rows = listing.items.map(renderCatalogItem);
    if (!rows.length && !state.listingError) {
        rows.push(h('li', { class: 'catalog-empty muted' }, 'This folder is empty.'));
    }
    els.catalogList.replaceChildren(...rows);
    restoreFocus(keep);
    const highlighted = els.catalogList.querySelector('.is-highlighted');
    if (highlighted) highlighted.scrollIntoView({ block: 'nearest' });
}

function renderCatalogItem(item) {
    const kind = KINDS[item.kind] ?? KINDS.object;
    const isFolder = item.type === 'folder';
    const name = isFolder
        ? h('a', { class: 'catalog-name', href: hashFor(item.path), dataset: { focusKey: `open:${item.path}` } }, item.name)
        : h('span', { class: 'catalog-name' }, item.name);
    const detail = item.kind === 'link' && item.target
        ? `${kind.label} to ${item.target}`
        : kind.label;
    const key = `cat:${item.path}`;
    const error = state.rowError?.key === key ? state.rowError.message : '';
    return h('li', { class: `catalog-item${state.highlight === item.path ? ' is-highlighted' : ''}` },
        h('div', { class: 'catalog-row' },
            icon(kind.icon, `icon kind-icon kind-${item.kind ?? 'object'}`),
            h('div', { class: 'catalog-text' }, name, h('span', { class: 'catalog-kind' }, detail)),
            'favorite' in item ? starButton(item) : null),
        h('p', { class: `error row-error${error ? '' : ' is-empty'}`, role: 'alert' }, error));
}

function starButton(item) {
    const on = Boolean(item.favorite);
    const label = on ? `Remove ${item.name} from favorites` : `Add ${item.name} to favorites`;
    return h('button', {
        type: 'button',
        class: 'star',
        'aria-pressed': String(on),
        'aria-label': label,
        title: label,
        dataset: { focusKey: `star:${item.path}` },
        onclick: () => (on ? unstar(item) : openStarDialog(item)),
    }, icon('star'));
}

function onHashChange() {
    if (!state.session) return;
    const path = pathFromHash();
    if (path !== state.highlightFolder) state.highlight = '';
    state.path = path;
    state.rowError = null;
    setMessage(els.catalogStatus, '');
    loadListing(path, { focus: true });
}

// ---------------------------------------------------------------------------
// Stars

/** Reloads what a change of the favorites shows: the folder's stars and the tree. */
async function refreshAfterChange() {
    await Promise.all([loadListing(state.path), reloadTree()]);
}

function openStarDialog(item) {
    state.rowError = null;
    const group = uniqueId('star-category');
    const NEW = '\u0000new';
    const options = [
        { value: ROOT_PATH, label: 'Top level (no category)', depth: 0 },
        ...categoryList(state.tree).map((c) => ({ value: c.favoritesPath, label: c.label, depth: c.depth })),
    ];
    const newNameId = uniqueId('new-category-name');
    const newRadioId = uniqueId('choice');
    const newName = h('input', {
        type: 'text', id: newNameId, class: 'choice-text', autocomplete: 'off',
        onfocus: () => { newRadio.checked = true; },
        oninput: () => { newRadio.checked = true; newName.removeAttribute('aria-invalid'); },
    });
    const newRadio = h('input', { type: 'radio', name: group, id: newRadioId, value: NEW });
    const choices = options.map((option, i) => {
        const id = uniqueId('choice');
        return h('div', { class: 'choice', style: `--depth: ${option.depth}` },
            h('input', { type: 'radio', name: group, id, value: option.value, checked: i === 0 }),
            h('label', { for: id }, option.label));
    });
    const fieldset = h('fieldset', { class: 'choices' },
        h('legend', {}, 'Category'),
        h('div', { class: 'choice-list' }, choices),
        h('div', { class: 'choice choice-new' },
            newRadio,
            h('label', { for: newRadioId }, 'New category'),
            h('label', { for: newNameId, class: 'visually-hidden' }, 'Name of the new category'),
            newName));

    return showDialog({
        title: `Add ${item.name} to favorites`,
        content: [h('p', { class: 'muted' }, `Choose the category to keep “${item.name}” in.`), fieldset],
        actions: [{
            label: 'Add to favorites',
            run: () => exclusive(async () => {
                const chosen = fieldset.querySelector('input[type=radio]:checked')?.value ?? ROOT_PATH;
                let category = chosen === ROOT_PATH ? '' : chosen;
                let where = chosen === ROOT_PATH ? 'the top level' : `“${options.find((o) => o.value === chosen)?.label}”`;
                if (chosen === NEW) {
                    const name = newName.value.trim();
                    if (!name) {
                        newName.setAttribute('aria-invalid', 'true');
                        throw new TreeEditError('Type a name for the new category.');
                    }
                    const existing = state.tree.find((other) => isCategory(other) && other.name === name);
                    if (existing) {
                        category = existing.favoritesPath;
                    } else {
                        const made = await api.makeCategory(name, '');
                        category = made?.item?.favoritesPath ?? `${ROOT_PATH}/${escapeName(name)}`;
                        reloadTree().catch(() => {});
                    }
                    where = `“${name}”`;
                }
                await api.addFavorite(item.path, category);
                await refreshAfterChange();
                setMessage(els.catalogStatus, `Added “${item.name}” to ${where}.`);
            }),
        }],
        onError: dialogErrors,
        returnFocus: () => focusKey(`star:${item.path}`),
    });
}

async function unstar(item) {
    state.rowError = null;
    const key = `cat:${item.path}`;
    try {
        // Where the object sits is read afresh: another tab or program may
        // have put it somewhere else since the tree was shown.
        if (await reloadTree()) setMessage(els.notice, CHANGED_ELSEWHERE);
        const places = occurrences(state.tree, item.path);
        if (places.length > 1) {
            await openUnstarDialog(item, places);
            return;
        }
        await exclusive(async () => {
            if (places.length === 1) {
                await api.removeFavorite(item.path, { category: places[0].parent?.favoritesPath ?? '' });
            } else {
                await api.removeFavorite(item.path, { everywhere: true });
            }
            await refreshAfterChange();
        });
        setMessage(els.catalogStatus, `Removed “${item.name}” from your favorites.`);
    } catch (error) {
        if (handleCommon(error)) return;
        showRowError(key, error);
        renderListing();
    }
}

function openUnstarDialog(item, places) {
    const placeName = (place) => (place.parent ? `“${place.parent.name}”` : 'the top level');
    const names = places.map(placeName);
    const list = names.length > 1 ? `${names.slice(0, -1).join(', ')} and ${names[names.length - 1]}` : names[0];
    const actions = [
        {
            label: 'Remove from all',
            kind: 'danger',
            run: () => exclusive(async () => {
                await api.removeFavorite(item.path, { everywhere: true });
                await refreshAfterChange();
                setMessage(els.catalogStatus, `Removed “${item.name}” from all your categories.`);
            }),
        },
        ...places.map((place) => ({
            label: place.parent ? `Remove from ${place.parent.name} only` : 'Remove from the top level only',
            kind: 'secondary',
            run: () => exclusive(async () => {
                await api.removeFavorite(item.path, { category: place.parent?.favoritesPath ?? '' });
                await refreshAfterChange();
                setMessage(els.catalogStatus, `Removed “${item.name}” from ${placeName(place)}.`);
            }),
        })),
    ];
    return showDialog({
        title: `Remove ${item.name} from favorites`,
        content: [h('p', {}, `“${item.name}” is in ${places.length} places in your favorites: ${list}. Remove it from all of them, or from one?`)],
        actions,
        onError: dialogErrors,
        returnFocus: () => focusKey(`star:${item.path}`),
    });
}

// ---------------------------------------------------------------------------
// Favorites tree

/**
 * Reads the tree (and, with a filter on, what the filter admits) and shows
 * it. Answers whether it differs from the tree shown before.
 */
async function reloadTree() {
    const sequence = ++treeSequence;
    const [answer] = await Promise.all([api.getFavorites(), loadVersions()]);
    if (sequence !== treeSequence || !state.session) return false;
    const changed = state.treeLoaded && fingerprint(answer.items ?? []) !== fingerprint(state.tree);
    state.tree = answer.items ?? [];
    state.treeLoaded = true;
    setMessage(els.favoritesError, '');
    if (state.filter) {
        try {
            await loadFilter();
            setMessage(els.filterError, '');
        } catch (error) {
            if (handleCommon(error)) return changed;
            setMessage(els.filterError, error.message);
        }
    }
    if (sequence === treeSequence) renderTree();
    return changed;
}

/** Asks, for every category, which of its objects the filter admits. */
async function loadFilter() {
    const filter = state.filter;
    if (!filter) {
        state.filterKeep = null;
        return;
    }
    const categories = ['', ...categoryList(state.tree).map((c) => c.favoritesPath)];
    const answers = await Promise.all(categories.map((category) => api.favoritesChildren(category, filter).catch((error) => {
        // A category removed since the tree was read has nothing to show.
        if (error.status === 404) return { items: [] };
        throw error;
    })));
    const keep = new Set();
    for (const answer of answers) {
        for (const item of answer.items ?? []) if (!isCategory(item)) keep.add(item.favoritesPath);
    }
    if (filter === state.filter) state.filterKeep = keep;
}

async function changeFilter(event) {
    const value = event.target.value;
    state.filter = value;
    state.filterKeep = null;
    state.rowError = null;
    setMessage(els.filterError, '');
    try {
        await loadFilter();
    } catch (error) {
        if (handleCommon(error)) return;
        setMessage(els.filterError, error.message);
        state.filter = '';
        els.filter.querySelector('input[value=""]').checked = true;
    }
    renderTree();
}

function restoreFocus(key) {
    const active = document.activeElement;
    if (key && (!active || active === document.body || !active.isConnected)) focusKey(key);
}

function renderTree() {
    const keep = focusedKey();
    const filtering = Boolean(state.filter && state.filterKeep);
    const items = filtering ? keepObjects(state.tree, state.filterKeep) : state.tree;
    const rearrange = !state.filter;
    const rows = items.map((item, index) => renderFavorite(item, items, index, null, rearrange));
    if (!rows.length) {
        let empty = 'Loading your favorites…';
        if (state.warning) empty = 'Your stored favorites cannot be read, so none are shown.';
        else if (state.treeLoaded && state.filter) empty = 'None of your favorites match this filter.';
        else if (state.treeLoaded) empty = 'You have no favorites yet. Use the star next to an item in the catalog to add it.';
        rows.push(h('li', { class: 'fav-empty muted' }, empty));
    }
    els.tree.replaceChildren(...rows);
    els.hint.textContent = rearrange
        ? 'Drag items to rearrange them, or use their arrow buttons; Alt+Up and Alt+Down move the item that has the focus.'
        : 'Show all favorites to rearrange them.';
    restoreFocus(keep);
}

function actionButton(iconName, label, key, onclick, { disabled = false, text = '' } = {}) {
    return h('button', {
        type: 'button',
        class: 'icon-button',
        'aria-label': label,
        title: label,
        'aria-disabled': disabled ? 'true' : null,
        dataset: { focusKey: key },
        onclick: (event) => {
            if (event.currentTarget.getAttribute('aria-disabled') === 'true') return;
            onclick();
        },
    }, icon(iconName), text ? h('span', { class: 'icon-button-text' }, text) : null);
}

function renderFavorite(item, siblings, index, parent, rearrange) {
    const path = item.favoritesPath;
    const key = (action) => `fav:${path}:${action}`;
    const category = isCategory(item);
    const actions = [];
    if (rearrange) {
        actions.push(
            actionButton('up', `Move ${item.name} up`, key('up'), () => moveItemBy(item, -1), { disabled: index === 0 }),
            actionButton('down', `Move ${item.name} down`, key('down'), () => moveItemBy(item, 1),
                { disabled: index === siblings.length - 1 }),
            actionButton('move', `Move ${item.name} to…`, key('move'), () => openMoveDialog(item)));
    }
    if (category) {
        actions.push(
            actionButton('rename', `Rename ${item.name}`, key('rename'), () => openRenameDialog(item)),
            actionButton('remove', `Remove category ${item.name}`, key('remove'), () => openRemoveCategoryDialog(item)));
    } else {
        const from = parent ? parent.name : 'the top level';
        actions.push(actionButton('remove', `Remove ${item.name} from ${from}`, key('remove'), () => removeObject(item, parent)));
    }

    let name;
    if (category) {
        name = h('span', { class: 'fav-name' }, item.name);
    } else {
        const folder = parentPath(item.catalogPath);
        name = h('span', { class: 'fav-text' },
            h('a', {
                class: 'fav-name',
                href: hashFor(folder),
                title: `Show ${item.name} in the catalog`,
                dataset: { focusKey: key('open') },
                onclick: (event) => openLocation(event, item),
            }, item.name),
            h('span', { class: 'fav-where' }, folder));
    }

    const row = h('div', {
        class: 'fav-row',
        draggable: rearrange ? 'true' : null,
        dataset: { fp: path },
        onkeydown: (event) => {
            if (!rearrange || !event.altKey || event.ctrlKey || event.metaKey) return;
            if (event.key === 'ArrowUp' || event.key === 'ArrowDown') {
                event.preventDefault();
                moveItemBy(item, event.key === 'ArrowUp' ? -1 : 1);
            }
        },
    },
    rearrange ? icon('grip', 'icon grip') : null,
    icon(category ? 'category' : 'favorite', `icon kind-icon ${category ? 'kind-category' : 'kind-favorite'}`),
    name,
    h('span', { class: 'fav-actions' }, actions));

    const error = state.rowError?.key === path ? state.rowError.message : '';
    const children = category ? (item.children ?? []) : [];
    return h('li', { class: `fav-item ${category ? 'is-category' : 'is-object'}` },
        row,
        h('p', { class: `error row-error${error ? '' : ' is-empty'}`, role: 'alert' }, error),
        category && children.length
            ? h('ul', { class: 'fav-children', 'aria-label': `In ${item.name}` },
                children.map((child, i) => renderFavorite(child, children, i, item, rearrange)))
            : null,
        category && !children.length ? h('p', { class: 'fav-empty-category muted' }, 'No favorites in this category.') : null);
}

function openLocation(event, item) {
    const folder = parentPath(item.catalogPath);
    state.highlight = item.catalogPath;
    state.highlightFolder = folder;
    if (location.hash === hashFor(folder) || pathFromHash() === folder) {
        // Already shown: the address does not change, so show it from here.
        event.preventDefault();
        renderListing();
        els.folderHeading.focus();
    }
}

/**
 * Makes a rename, move or reorder: builds the new tree from the one shown,
 * checks that the stored tree is still that one (else reloads it and says
 * so), and sends the whole new tree. Answers the new tree's
 * {items, indexPath}; focuses `focus(action)` of the item at indexPath.
 */
function commitTree(edit, focusAction) {
    return exclusive(async () => {
        const basis = state.tree;
        const result = edit(basis);
        const current = await api.getFavorites();
        if (fingerprint(current.items ?? []) !== fingerprint(basis)) {
            state.tree = current.items ?? [];
            throw new StaleTree();
        }
        await api.replaceFavorites(toReplacement(result.items));
        await reloadTree();
        const moved = itemAt(state.tree, result.indexPath);
        if (moved && focusAction) focusKey(`fav:${moved.favoritesPath}:${focusAction}`);
        return result;
    });
}

async function runTreeEdit(item, edit) {
    state.rowError = null;
    setMessage(els.notice, '');
    const action = (focusedKey().match(/^fav:.*:([a-z]+)$/) ?? [])[1] ?? 'open';
    try {
        await commitTree(edit, action);
    } catch (error) {
        if (handleCommon(error)) return;
        showRowError(item.favoritesPath, error);
        renderTree();
        focusKey(`fav:${item.favoritesPath}:${action}`);
    }
}

function moveItemBy(item, delta) {
    return runTreeEdit(item, (items) => moveBy(items, item.favoritesPath, delta));
}

function destinationLabel(favoritesPath) {
    if (!favoritesPath || favoritesPath === ROOT_PATH) return 'the top level';
    const found = categoryList(state.tree).find((c) => c.favoritesPath === favoritesPath);
    return found ? `“${found.label}”` : 'that category';
}

function openMoveDialog(item) {
    state.rowError = null;
    setMessage(els.notice, '');
    const current = locate(state.tree, item.favoritesPath);
    if (!current) return;
    const here = current.parent?.favoritesPath ?? ROOT_PATH;
    const group = uniqueId('move-to');
    const options = [{ value: ROOT_PATH, label: 'Top level', depth: 0 }, ...categoryList(state.tree)
        .filter((c) => !(isCategory(item) && isWithin(state.tree, c.favoritesPath, item.favoritesPath)))
        .map((c) => ({ value: c.favoritesPath, label: c.label, depth: c.depth }))];
    const firstFree = options.find((o) => o.value !== here)?.value;
    const choices = options.map((option) => {
        const id = uniqueId('choice');
        const isHere = option.value === here;
        return h('div', { class: 'choice', style: `--depth: ${option.depth}` },
            h('input', { type: 'radio', name: group, id, value: option.value, disabled: isHere, checked: option.value === firstFree }),
            h('label', { for: id }, option.label, isHere ? h('span', { class: 'muted' }, ' (where it is now)') : null));
    });
    const fieldset = h('fieldset', { class: 'choices' }, h('legend', {}, 'Move to'), h('div', { class: 'choice-list' }, choices));
    let moved = null;
    return showDialog({
        title: `Move ${item.name} to…`,
        content: firstFree
            ? [fieldset]
            : [h('p', {}, 'There is no other category to move it to. Make a category first.')],
        actions: firstFree ? [{
            label: 'Move',
            run: async () => {
                const target = fieldset.querySelector('input[type=radio]:checked')?.value ?? ROOT_PATH;
                const result = await commitTree((items) => moveTo(items, item.favoritesPath, target), null);
                moved = itemAt(state.tree, result.indexPath);
                setMessage(els.notice, `Moved “${item.name}” to ${destinationLabel(moved ? locate(state.tree, moved.favoritesPath)?.parent?.favoritesPath : target)}.`);
            },
        }] : [],
        onError: dialogErrors,
        returnFocus: () => {
            if (!(moved && focusKey(`fav:${moved.favoritesPath}:move`))) focusKey(`fav:${item.favoritesPath}:move`);
        },
    });
}

function openRenameDialog(item) {
    state.rowError = null;
    setMessage(els.notice, '');
    const id = uniqueId('rename');
    const input = h('input', { type: 'text', id, value: item.name, autocomplete: 'off', required: true });
    let renamed = null;
    return showDialog({
        title: `Rename ${item.name}`,
        content: [h('div', { class: 'field' }, h('label', { for: id }, 'New name'), input)],
        actions: [{
            label: 'Rename',
            run: async () => {
                const result = await commitTree((items) => renameCategory(items, item.favoritesPath, input.value), null);
                renamed = itemAt(state.tree, result.indexPath);
                setMessage(els.notice, `Renamed “${item.name}” to “${renamed?.name ?? input.value.trim()}”.`);
            },
        }],
        onError: (error) => {
            if (error instanceof TreeEditError) input.setAttribute('aria-invalid', 'true');
            return dialogErrors(error);
        },
        returnFocus: () => {
            if (!(renamed && focusKey(`fav:${renamed.favoritesPath}:rename`))) focusKey(`fav:${item.favoritesPath}:rename`);
        },
    });
}

function openRemoveCategoryDialog(item) {
    state.rowError = null;
    setMessage(els.notice, '');
    const counts = countItems(item.children ?? []);
    const total = counts.categories + counts.objects;
    const text = total === 0
        ? `The category “${item.name}” is empty. Remove it?`
        : `Remove the category “${item.name}” and the ${total} ${total === 1 ? 'item' : 'items'} in it (${describeCounts(counts)})?`;
    return showDialog({
        title: `Remove category ${item.name}`,
        content: [h('p', {}, text)],
        actions: [{
            label: 'Remove category',
            kind: 'danger',
            run: () => exclusive(async () => {
                await api.removeCategory(item.favoritesPath);
                await refreshAfterChange();
                setMessage(els.notice, `Removed the category “${item.name}”${total ? ` and ${describeCounts(counts)}` : ''}.`);
            }),
        }],
        onError: dialogErrors,
        returnFocus: () => {
            if (!focusKey(`fav:${item.favoritesPath}:remove`)) els.favoritesHeading.focus();
        },
    });
}

async function removeObject(item, parent) {
    state.rowError = null;
    const index = locate(state.tree, item.favoritesPath)?.indexPath;
    try {
        await exclusive(async () => {
            await api.removeFavorite(item.catalogPath, { category: parent?.favoritesPath ?? '' });
            await refreshAfterChange();
        });
        setMessage(els.notice, `Removed “${item.name}” from ${parent ? `“${parent.name}”` : 'the top level'}.`);
        // The focus goes to what now stands where the item was.
        const next = index ? (itemAt(state.tree, index) ?? itemAt(state.tree, [...index.slice(0, -1), index[index.length - 1] - 1])) : null;
        if (!(next && (focusKey(`fav:${next.favoritesPath}:remove`)))) els.favoritesHeading.focus();
    } catch (error) {
        if (handleCommon(error)) return;
        showRowError(item.favoritesPath, error);
        renderTree();
    }
}

function openNewCategoryDialog() {
    state.rowError = null;
    setMessage(els.notice, '');
    const nameId = uniqueId('category-name');
    const parentId = uniqueId('category-parent');
    const input = h('input', { type: 'text', id: nameId, autocomplete: 'off', required: true });
    const select = h('select', { id: parentId },
        h('option', { value: '' }, 'Top level'),
        categoryList(state.tree).map((c) => h('option', { value: c.favoritesPath }, c.label)));
    let made = null;
    return showDialog({
        title: 'New category',
        content: [
            h('div', { class: 'field' }, h('label', { for: nameId }, 'Name'), input),
            h('div', { class: 'field' }, h('label', { for: parentId }, 'Inside'), select),
        ],
        actions: [{
            label: 'Make category',
            run: () => exclusive(async () => {
                const name = input.value.trim();
                if (!name) {
                    input.setAttribute('aria-invalid', 'true');
                    throw new TreeEditError('A category needs a name.');
                }
                const answer = await api.makeCategory(name, select.value);
                made = answer?.item ?? null;
                await reloadTree();
                setMessage(els.notice, `Made the category “${name}”.`);
            }),
        }],
        onError: dialogErrors,
        returnFocus: () => {
            if (!(made && focusKey(`fav:${made.favoritesPath}:rename`))) els.newCategory.focus();
        },
    });
}

// Drag and drop: a row dropped on the upper or lower part of another row goes
// before or after it; dropped on the middle of a category's row, into it.

function dropZone(event, row) {
    const target = row.dataset.fp;
    if (!dragging || target === dragging) return null;
    const found = locate(state.tree, target);
    if (!found) return null;
    const draggedItem = locate(state.tree, dragging)?.item;
    if (draggedItem && isCategory(draggedItem) && isWithin(state.tree, target, dragging)) return null;
    const box = row.getBoundingClientRect();
    const y = (event.clientY - box.top) / Math.max(box.height, 1);
    if (isCategory(found.item)) return y < 0.25 ? 'before' : y > 0.75 ? 'after' : 'into';
    return y < 0.5 ? 'before' : 'after';
}

function clearDropMarks() {
    for (const marked of els.tree.querySelectorAll('.drop-before, .drop-after, .drop-into')) {
        marked.classList.remove('drop-before', 'drop-after', 'drop-into');
    }
    els.rootDrop.classList.remove('drop-into');
}

function wireDragAndDrop() {
    els.tree.addEventListener('dragstart', (event) => {
        const row = event.target.closest?.('.fav-row');
        if (!row || row.getAttribute('draggable') !== 'true') return;
        dragging = row.dataset.fp;
        event.dataTransfer.effectAllowed = 'move';
        event.dataTransfer.setData('text/plain', locate(state.tree, dragging)?.item.name ?? '');
        row.classList.add('is-dragging');
        els.rootDrop.hidden = false;
    });
    els.tree.addEventListener('dragover', (event) => {
        const row = event.target.closest?.('.fav-row');
        if (!row) return;
        const zone = dropZone(event, row);
        clearDropMarks();
        if (!zone) return;
        event.preventDefault();
        event.dataTransfer.dropEffect = 'move';
        row.classList.add(`drop-${zone}`);
    });
    els.tree.addEventListener('dragleave', (event) => {
        if (!els.tree.contains(event.relatedTarget)) clearDropMarks();
    });
    els.tree.addEventListener('drop', (event) => {
        const row = event.target.closest?.('.fav-row');
        if (!row || !dragging) return;
        const zone = dropZone(event, row);
        if (!zone) return;
        event.preventDefault();
        const source = dragging;
        const target = locate(state.tree, row.dataset.fp);
        endDrag();
        const item = locate(state.tree, source)?.item;
        if (!item || !target) return;
        if (zone === 'into') {
            runTreeEdit(item, (items) => moveTo(items, source, target.item.favoritesPath));
        } else {
            const parentOf = target.parent?.favoritesPath ?? ROOT_PATH;
            runTreeEdit(item, (items) => moveTo(items, source, parentOf, target.index + (zone === 'after' ? 1 : 0)));
        }
    });
    els.tree.addEventListener('dragend', endDrag);

    els.rootDrop.addEventListener('dragover', (event) => {
        if (!dragging) return;
        event.preventDefault();
        event.dataTransfer.dropEffect = 'move';
        els.rootDrop.classList.add('drop-into');
    });
    els.rootDrop.addEventListener('dragleave', () => els.rootDrop.classList.remove('drop-into'));
    els.rootDrop.addEventListener('drop', (event) => {
        event.preventDefault();
        const source = dragging;
        endDrag();
        const item = locate(state.tree, source)?.item;
        if (item) runTreeEdit(item, (items) => moveTo(items, source, ROOT_PATH));
    });
}

function endDrag() {
    dragging = '';
    clearDropMarks();
    for (const row of els.tree.querySelectorAll('.is-dragging')) row.classList.remove('is-dragging');
    els.rootDrop.hidden = true;
}

// ---------------------------------------------------------------------------
// Undo, history, and stored favorites that cannot be read

const TIME_FORMAT = new Intl.DateTimeFormat(undefined, { dateStyle: 'medium', timeStyle: 'medium' });

/** A time the server writes (ISO 8601, UTC) in the reader's time zone and language. */
function localTime(iso) {
    const date = new Date(iso);
    return Number.isNaN(date.getTime()) ? String(iso ?? '') : TIME_FORMAT.format(date);
}

/** The server's own lower-case texts as sentences. */
function sentence(text) {
    const trimmed = String(text ?? '').trim();
    if (!trimmed) return '';
    const capital = trimmed.charAt(0).toUpperCase() + trimmed.slice(1);
    return /[.!?]$/.test(capital) ? capital : `${capital}.`;
}

/** "1 category and 3 favorites" for a version or a restore's answer. */
function versionCounts({ categories, catalogObjects }) {
    const text = describeCounts({ categories: categories ?? 0, objects: catalogObjects ?? 0 });
    return text === 'nothing' ? 'no favorites' : text;
}

/**
 * Reads which versions are kept, so that Undo is offered only when there is
 * one. When this fails, Undo stays on: pressing it then says what is wrong.
 */
async function loadVersions() {
    const sequence = ++historySequence;
    let versions = null;
    try {
        versions = (await api.getHistory())?.versions ?? [];
    } catch (error) {
        // Reading the tree, at the same time, reports a lost session.
        if (error.signedOut) return;
    }
    if (sequence !== historySequence || !state.session) return;
    state.versions = versions;
    state.versionsFailed = versions === null;
    renderUndo();
}

/** Keeps the versions read along with an undo or a restore. */
function keepVersions(versions) {
    ++historySequence;
    state.versions = versions;
    state.versionsFailed = false;
}

function renderUndo() {
    const newest = state.versions?.[0];
    els.undo.disabled = !state.versionsFailed && !newest;
    if (!state.versionsFailed && !newest) {
        els.undo.title = 'There is no earlier version of your favorites to put back yet.';
    } else {
        const before = newest ? `the change of ${localTime(newest.replaced)}` : 'the last change';
        els.undo.title = `Puts back your favorites as they were before ${before}. Pressing Undo again undoes the undo.`;
    }
}

/** Writes version `n` back; one no longer kept (only the newest are) is said in words. */
async function restoreVersion(n) {
    try {
        return await api.restoreVersion(n);
    } catch (error) {
        if (error.status === 404 && error.source === 'catalog') {
            error.message = `Version ${n} is no longer kept. Open History to see the versions there are.`;
        }
        throw error;
    }
}

/** Runs an undo or a restore of the page (not of a dialog), one at a time. */
async function restoring(task, { onError }) {
    if (state.restoring) return;
    state.restoring = true;
    state.rowError = null;
    setMessage(els.notice, '');
    setMessage(els.favoritesError, '');
    setMessage(els.catalogStatus, '');
    try {
        await exclusive(task);
    } catch (error) {
        if (!handleCommon(error)) onError(error);
    } finally {
        state.restoring = false;
        renderUndo();
    }
}

/** Puts back the version the last change replaced. */
function undoLastChange() {
    return restoring(async () => {
        const versions = (await api.getHistory())?.versions ?? [];
        keepVersions(versions);
        const newest = versions[0];
        if (!newest) throw new Error('There is no earlier version of your favorites to put back.');
        if (!newest.readable) {
            throw new Error(`The last change replaced favorites that could not be read (${newest.problem ?? 'no reason given'}), `
                + 'so Undo cannot put them back. Choose a readable version under History.');
        }
        const answer = await restoreVersion(newest.version);
        await refreshAfterChange();
        setMessage(els.notice, `Undid the last change: your favorites are back as they were before ${localTime(newest.replaced)} `
            + `(${versionCounts(answer ?? {})}). Press Undo again to undo this.`);
    }, { onError: (error) => setMessage(els.favoritesError, error.message) });
}

function historyRow(version, run) {
    const when = localTime(version.replaced);
    let restore = null;
    if (version.readable) {
        restore = h('button', {
            type: 'button',
            class: 'button',
            'aria-label': `Restore version ${version.version}, replaced ${when}`,
            onclick: () => run({
                label: 'Restore',
                from: restore,
                run: () => exclusive(async () => {
                    const answer = await restoreVersion(version.version);
                    await refreshAfterChange();
                    setMessage(els.catalogStatus, '');
                    setMessage(els.notice, `Restored version ${version.version}: your favorites are as they were before ${when} `
                        + `(${versionCounts(answer ?? {})}). Undo puts back the ones it replaced.`);
                }),
            }),
        }, 'Restore');
    }
    return h('li', { class: `history-item${version.readable ? '' : ' is-unreadable'}` },
        h('div', { class: 'history-text' },
            h('span', { class: 'history-when' }, 'Replaced ', h('time', { datetime: version.replaced }, when)),
            version.readable
                ? h('span', { class: 'history-what' }, `Version ${version.version} · ${versionCounts(version)}`)
                : h('span', { class: 'history-what history-problem' },
                    `Version ${version.version} · cannot be read: ${version.problem ?? 'no reason given'}`)),
        restore);
}

/** Lists the kept versions, newest first, each readable one with a Restore button. */
async function openHistoryDialog() {
    state.rowError = null;
    setMessage(els.notice, '');
    setMessage(els.favoritesError, '');
    let versions;
    try {
        versions = (await api.getHistory())?.versions ?? [];
    } catch (error) {
        if (!handleCommon(error)) setMessage(els.favoritesError, error.message);
        return;
    }
    keepVersions(versions);
    renderUndo();
    await showDialog({
        title: 'History of your favorites',
        wide: true,
        labelCancel: 'Close',
        content: ({ run }) => [
            h('p', { class: 'muted' }, versions.length
                ? 'Every change keeps the version it replaced, newest first. A restore keeps your current favorites here too, so Undo takes it back.'
                : 'No earlier versions are kept yet. From now on, every change keeps the version it replaces.'),
            versions.length
                ? h('ol', { class: 'history-list', 'aria-label': 'Earlier versions', tabindex: '0' },
                    versions.map((version) => historyRow(version, run)))
                : null,
        ],
        onError: dialogErrors,
        returnFocus: () => els.history.focus(),
    });
}

/** Shows or hides the banner about stored favorites that cannot be read. */
function showWarning(warning) {
    const was = state.warning;
    state.warning = state.session ? (warning ?? '') : '';
    if (!state.warning) {
        els.warning.hidden = true;
        setMessage(els.warningResult, '');
    } else {
        const text = sentence(state.warning);
        if (els.warningText.textContent !== text) els.warningText.textContent = text;
        els.warning.hidden = false;
    }
    // What an empty tree means depends on it.
    if (Boolean(was) !== Boolean(state.warning) && state.treeLoaded && !state.tree.length) renderTree();
}

/** Restores the newest version that can be read, or says that none is kept. */
function restoreLastReadable() {
    setMessage(els.warningResult, '');
    return restoring(async () => {
        const versions = (await api.getHistory())?.versions ?? [];
        keepVersions(versions);
        const readable = versions.find((version) => version.readable);
        if (!readable) {
            setMessage(els.warningResult, 'No readable earlier version is kept, so there is nothing to restore.');
            return;
        }
        const answer = await restoreVersion(readable.version);
        await refreshAfterChange();
        setMessage(els.notice, `Restored your favorites as they were before ${localTime(readable.replaced)} `
            + `(${versionCounts(answer ?? {})}).`);
        // The banner and its button are gone: the focus goes to the tree's heading.
        if (els.warning.hidden) els.favoritesHeading.focus();
    }, { onError: (error) => setMessage(els.warningResult, error.message) });
}

// ---------------------------------------------------------------------------
// Import

function previewList(items) {
    return h('ul', { class: 'preview-tree' }, items.map((item) => h('li', {},
        h('span', { class: 'preview-row' },
            icon(isCategory(item) ? 'category' : 'favorite', 'icon kind-icon'),
            h('span', { class: 'preview-name' }, item.name),
            isCategory(item) ? null : h('span', { class: 'fav-where' }, parentPath(item.catalogPath))),
        isCategory(item) && item.children?.length ? previewList(item.children) : null)));
}

async function chooseImportFile() {
    const file = els.importFile.files?.[0];
    setMessage(els.importError, '');
    setMessage(els.notice, '');
    if (!file) return;
    let parsed;
    try {
        parsed = parseReplacement(await file.text());
    } catch (error) {
        setMessage(els.importError, error instanceof TreeEditError ? error.message : 'The file could not be read.');
        els.importFile.value = '';
        return;
    }
    const current = countItems(state.tree);
    const content = [
        h('p', {}, parsed.items.length
            ? `The file “${file.name}” holds ${describeCounts(parsed.counts)}. Confirming replaces your current favorites (${describeCounts(current)}) with this tree:`
            : `The file “${file.name}” holds no favorites. Confirming removes all your current favorites (${describeCounts(current)}).`),
        parsed.items.length ? h('div', { class: 'preview', role: 'group', 'aria-label': 'Favorites in the file' }, previewList(parsed.items)) : null,
    ];
    await showDialog({
        title: 'Import favorites',
        content,
        wide: true,
        actions: [{
            label: 'Confirm import',
            run: () => exclusive(async () => {
                const answer = await api.replaceFavorites(parsed.replacement);
                await refreshAfterChange();
                const kept = { categories: answer?.categories ?? 0, objects: answer?.catalogObjects ?? 0 };
                const lost = parsed.counts.categories + parsed.counts.objects - kept.categories - kept.objects;
                setMessage(els.notice, `Imported your favorites from “${file.name}”: ${describeCounts(kept)}.${lost > 0
                    ? ` ${lost} ${lost === 1 ? 'item' : 'items'} of the file could not be kept (for example, items you may not read).`
                    : ''}`);
            }),
        }],
        onError: dialogErrors,
        returnFocus: () => els.importFile.focus(),
    });
    els.importFile.value = '';
}

// ---------------------------------------------------------------------------
// Changes made elsewhere

/** When the page is looked at again, shows the favorites as they are now. */
async function refreshOnReturn() {
    if (!state.session || !state.treeLoaded || busy || dialogOpen() || dragging) return;
    if (Date.now() - lastRefresh < 1000) return;
    lastRefresh = Date.now();
    try {
        const changed = await reloadTree();
        if (changed) {
            setMessage(els.notice, CHANGED_ELSEWHERE);
            await loadListing(state.path);
        }
    } catch (error) {
        if (!handleCommon(error)) setMessage(els.favoritesError, error.message);
    }
}

// ---------------------------------------------------------------------------

function wireEvents() {
    els.signInForm.addEventListener('submit', submitSignIn);
    els.signOut.addEventListener('click', submitSignOut);
    els.newCategory.addEventListener('click', openNewCategoryDialog);
    els.undo.addEventListener('click', undoLastChange);
    els.history.addEventListener('click', openHistoryDialog);
    els.restoreReadable.addEventListener('click', restoreLastReadable);
    api.onFavoritesWarning(showWarning);
    els.filter.addEventListener('change', changeFilter);
    els.importFile.addEventListener('change', chooseImportFile);
    window.addEventListener('hashchange', onHashChange);
    window.addEventListener('focus', refreshOnReturn);
    document.addEventListener('visibilitychange', () => {
        if (document.visibilityState === 'visible') refreshOnReturn();
    });
    wireDragAndDrop();
}

start();

