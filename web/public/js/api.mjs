// The requests the page makes to favoritesd, and the errors they answer.
//
// Every change (POST, PUT, DELETE) carries the session's anti-forgery token
// in X-CSRF-Token. A failure becomes an ApiError whose message is the one the
// server wrote into the error body (for favorites codes, the library's own
// text), so that the page never has to show a bare status code.
//
// While the stored favorites cannot be read, every answer under
// /api/v1/favorites (errors included) carries a top-level "warning"; the
// listener set with onFavoritesWarning hears it, or '' once an answer comes
// without one.

let csrfToken = '';
let warningListener = null;

const FAVORITES_API = '/api/v1/favorites';

/** Calls `listener(warning)` with the warning of every favorites answer ('' for none). */
export function onFavoritesWarning(listener) {
    warningListener = listener;
}

export function setCsrfToken(token) {
    csrfToken = token || '';
}

/** Favorites codes the page treats specially. */
export const FAVORITES_OUT_OF_SYNC = 3;

export class ApiError extends Error {
    constructor(status, body, retryAfter) {
        const error = body && typeof body === 'object' ? body.error : null;
        super(error && typeof error.message === 'string' && error.message.trim() !== ''
            ? sentence(error.message.trim())
            : fallbackMessage(status));
        this.status = status;
        this.source = error?.source ?? '';
        this.code = error?.code ?? null;
        this.errorName = error?.name ?? '';
        this.retryAfter = retryAfter;
    }

    /** The favorites were changed elsewhere and the server has reloaded them. */
    get outOfSync() {
        return this.status === 409 && this.source === 'favorites' && this.code === FAVORITES_OUT_OF_SYNC;
    }

    /** The session is gone (expired, or signed out in another tab). */
    get signedOut() {
        return this.status === 401;
    }
}

/** A message as a sentence: the server writes some of its own in lower case. */
function sentence(text) {
    return text.charAt(0).toUpperCase() + text.slice(1);
}

function fallbackMessage(status) {
    if (status === 0) return 'The server could not be reached. Check the connection and try again.';
    if (status === 401) return 'You are not signed in.';
    if (status === 403) return 'You are not allowed to do this.';
    if (status === 404) return 'This item does not exist.';
    if (status === 409) return 'This conflicts with your favorites as they are now.';
    if (status === 413) return 'This is too large for the server to accept.';
    if (status === 429) return 'Too many attempts; wait a little and try again.';
    if (status >= 500) return 'The server could not do this just now. Try again in a moment.';
    return 'The server refused this request.';
}

async function request(method, url, { json, text } = {}) {
    const headers = { Accept: 'application/json' };
    if (method !== 'GET' && method !== 'HEAD' && csrfToken) headers['X-CSRF-Token'] = csrfToken;
    let body;
    if (json !== undefined) {
        headers['Content-Type'] = 'application/json';
        body = JSON.stringify(json);
    } else if (text !== undefined) {
        headers['Content-Type'] = 'application/json';
        body = text;
    }
    let response;
    try {
        response = await fetch(url, { method, headers, body, credentials: 'same-origin', cache: 'no-store' });
    } catch {
        throw new ApiError(0, null, null);
    }
    const raw = response.status === 204 ? '' : await response.text().catch(() => '');
    let data = null;
    if (raw !== '') {
        try {
            data = JSON.parse(raw);
        } catch {
            data = null;
        }
    }
    if (warningListener && data && typeof data === 'object' && !Array.isArray(data)
        && (url === FAVORITES_API || url.startsWith(`${FAVORITES_API}/`) || url.startsWith(`${FAVORITES_API}?`))) {
        warningListener(typeof data.warning === 'string' ? data.warning : '');
    }
    if (!response.ok) throw new ApiError(response.status, data, response.headers.get('Retry-After'));
    return data;
}

function query(params) {
    const search = new URLSearchParams();
    for (const [key, value] of Object.entries(params)) {
        if (value !== undefined && value !== null) search.set(key, String(value));
    }
    const text = search.toString();
    return text ? `?${text}` : '';
}

// Session

export const getSession = () => request('GET', '/api/v1/session');
export const signIn = (user, password) => request('POST', '/api/v1/session', { json: { user, password } });
export const signOut = () => request('DELETE', '/api/v1/session');

// Catalog

export const catalogChildren = (path) => request('GET', `/api/v1/catalog/children${query({ path })}`);

// Favorites

export const getFavorites = () => request('GET', '/api/v1/favorites');

export const favoritesChildren = (category, filter) =>
    request('GET', `/api/v1/favorites/children${query({ category, filter })}`);

export const addFavorite = (catalogPath, category) =>
    request('POST', '/api/v1/favorites/items', { json: { catalogPath, category: category ?? '' } });

export const makeCategory = (name, category) =>
    request('POST', '/api/v1/favorites/items', { json: { name, category: category ?? '' } });

export const removeFavorite = (catalogPath, { category, everywhere } = {}) =>
    request('DELETE', `/api/v1/favorites/items${query(everywhere
        ? { catalogPath, everywhere: 'true' }
        : { catalogPath, category: category ?? '' })}`);

export const removeCategory = (path) => request('DELETE', `/api/v1/favorites/categories${query({ path })}`);

/** Replaces the whole tree with `replacement` (an array in the replacement format). */
export const replaceFavorites = (replacement) => request('PUT', '/api/v1/favorites', { text: JSON.stringify(replacement) });

// History: the earlier versions kept of the favorites, newest first.

export const getHistory = () => request('GET', `${FAVORITES_API}/history`);

/** Writes version `n` back; the version it replaces is kept in turn. */
export const restoreVersion = (n) => request('POST', `${FAVORITES_API}/history/${encodeURIComponent(String(n))}/restore`);

export const exportUrl = (format) => `/api/v1/favorites/export${query({ format })}`;
