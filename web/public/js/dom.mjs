// Small helpers for building the page's elements.

/**
 * Makes an element: h('button', {type: 'button', onclick: f}, 'Text', child).
 * Attributes whose value is false, null or undefined are left out; `on...`
 * keys add event listeners; `dataset` and `style` take objects.
 */
export function h(tag, attributes = {}, ...children) {
    const element = document.createElement(tag);
    for (const [key, value] of Object.entries(attributes ?? {})) {
        if (value === false || value === null || value === undefined) continue;
        if (key.startsWith('on') && typeof value === 'function') {
            element.addEventListener(key.slice(2), value);
        } else if (key === 'dataset') {
            Object.assign(element.dataset, value);
        } else if (key === 'class') {
            element.className = value;
        } else if (key === 'text') {
            element.textContent = value;
        } else if (value === true) {
            element.setAttribute(key, '');
        } else {
            element.setAttribute(key, String(value));
        }
    }
    append(element, children);
    return element;
}

function append(element, children) {
    for (const child of children) {
        if (child === null || child === undefined || child === false) continue;
        if (Array.isArray(child)) append(element, child);
        else element.append(child instanceof Node ? child : document.createTextNode(String(child)));
    }
}

const SVG = 'http://www.w3.org/2000/svg';

/** A decorative icon from the page's sprite. */
export function icon(name, className = 'icon') {
    const svg = document.createElementNS(SVG, 'svg');
    svg.setAttribute('class', className);
    svg.setAttribute('aria-hidden', 'true');
    svg.setAttribute('focusable', 'false');
    const use = document.createElementNS(SVG, 'use');
    use.setAttribute('href', `/icons/icons.svg#${name}`);
    svg.append(use);
    return svg;
}

let uniqueCounter = 0;

/** An id no other element of the page has. */
export function uniqueId(prefix) {
    uniqueCounter += 1;
    return `${prefix}-${uniqueCounter}`;
}

/** Focuses the element carrying data-focus-key=key; answers whether there was one. */
export function focusKey(key) {
    if (!key) return false;
    const element = document.querySelector(`[data-focus-key="${CSS.escape(key)}"]`);
    if (!element) return false;
    element.focus();
    return true;
}

/** The focus key of the element that has the focus, if it has one. */
export function focusedKey() {
    return document.activeElement?.closest?.('[data-focus-key]')?.dataset.focusKey ?? '';
}

/** Sets a message element's text and shows or hides it with it. */
export function setMessage(element, text) {
    element.textContent = text ?? '';
    element.classList.toggle('is-empty', !text);
}
