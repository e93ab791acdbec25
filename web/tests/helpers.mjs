// What the browser tests share: a favoritesd over a fresh demo catalog, the
// `favorites` tool on the same catalog, the browser, signing in, screenshots
// and the accessibility check.
//
// FAVORITESD and FAVORITES_TOOL name the two programs (by default the release
// build's); without them, or without Chromium, the tests fail with the reason.

import { spawn } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import assert from 'node:assert/strict';

import { chromium } from 'playwright-core';
import AxeBuilder from '@axe-core/playwright';

const here = path.dirname(fileURLToPath(import.meta.url));
const repository = path.resolve(here, '..', '..');

export const WEB_DIR = path.resolve(here, '..', 'public');
export const FAVORITESD = process.env.FAVORITESD || path.join(repository, 'build/release/apps/favoritesd/favoritesd');
export const FAVORITES_TOOL = process.env.FAVORITES_TOOL || path.join(repository, 'build/release/apps/favorites/favorites');
export const SCREENSHOT_DIR = path.resolve(process.env.SCREENSHOT_DIR || path.join(here, '..', 'test-screenshots'));
export const CHROMIUM = process.env.CHROMIUM || '/usr/bin/chromium';

export const DESKTOP = { width: 1280, height: 800 };
export const PHONE = { width: 390, height: 844 };

/** Time limits, in milliseconds. */
export const TEST_TIMEOUT = 90_000;
const ACTION_TIMEOUT = 10_000;
const START_TIMEOUT = 20_000;
const TOOL_TIMEOUT = 20_000;

export const CHANGED_ELSEWHERE =
    'Your favorites were changed elsewhere (in another tab or by another program); they have been reloaded.';

/** alice's favorites in the demo catalog, as replacement text. */
export const ALICE_FAVORITES = [
    { type: '1', name: 'Sales', children: [
        { type: '0', path: '/shared/Sales/Reports/Revenue by Region' },
        { type: '0', path: '/shared/Sales/Dashboards/Sales Overview/Summary' },
    ] },
    { type: '0', path: '/shared/Common/Company KPIs' },
];

function executable(file) {
    try {
        fs.accessSync(file, fs.constants.X_OK);
        return true;
    } catch {
        return false;
    }
}

/** Why the browser tests cannot run here, or '' when they can. */
const missing = (() => {
    if (!executable(FAVORITESD)) return `favoritesd not found at ${FAVORITESD} (set FAVORITESD)`;
    if (!executable(FAVORITES_TOOL)) return `the favorites tool not found at ${FAVORITES_TOOL} (set FAVORITES_TOOL)`;
    if (!executable(CHROMIUM)) return `chromium not found at ${CHROMIUM}`;
    return '';
})();
if (missing) throw new Error(`the browser tests cannot run: ${missing}`);

// ---------------------------------------------------------------------------
// Programs

/** Runs a program and answers {status, stdout, stderr}; gives up after TOOL_TIMEOUT. */
function run(file, args, { input } = {}) {
    return new Promise((resolve, reject) => {
        // Standard input is only opened for a tool that reads it: one that
        // ends before reading would otherwise break the pipe.
        const child = spawn(file, args, { stdio: [input === undefined ? 'ignore' : 'pipe', 'pipe', 'pipe'] });
        let stdout = '';
        let stderr = '';
        const timer = setTimeout(() => {
            child.kill('SIGKILL');
            reject(new Error(`${path.basename(file)} ${args.join(' ')} took longer than ${TOOL_TIMEOUT} ms`));
        }, TOOL_TIMEOUT);
        child.stdout.on('data', (chunk) => { stdout += chunk; });
        child.stderr.on('data', (chunk) => { stderr += chunk; });
        child.on('error', (error) => {
            clearTimeout(timer);
            reject(error);
        });
        child.on('close', (status) => {
            clearTimeout(timer);
            resolve({ status, stdout, stderr });
        });
        if (child.stdin) {
            child.stdin.on('error', () => {});
            child.stdin.end(input);
        }
    });
}

const running = new Set();
process.on('exit', () => {
    for (const child of running) child.kill('SIGKILL');
});

/**
 * Makes a demo catalog in a new temporary directory and starts favoritesd on
 * it, on a free port. Answers {url, catalog, dir, tool(), stop()}.
 */
export async function startServer({ args = [] } = {}) {
    const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'favoritesd-web-'));
    const catalog = path.join(dir, 'catalog.db');
    const demo = await run(FAVORITES_TOOL, ['--catalog', catalog, 'catalog', 'demo']);
    if (demo.status !== 0) throw new Error(`favorites catalog demo failed (${demo.status}): ${demo.stderr}`);

    const child = spawn(FAVORITESD, ['--catalog', catalog, '--listen', '127.0.0.1:0', '--web-dir', WEB_DIR, ...args],
        { stdio: ['ignore', 'pipe', 'pipe'] });
    running.add(child);
    let output = '';
    const url = await new Promise((resolve, reject) => {
        const timer = setTimeout(() => {
            reject(new Error(`favoritesd did not say where it listens within ${START_TIMEOUT} ms:\n${output}`));
        }, START_TIMEOUT);
        const read = (chunk) => {
            output += chunk;
            const match = /listening on (http:\/\/127\.0\.0\.1:\d+)/.exec(output);
            if (match) {
                clearTimeout(timer);
                resolve(match[1]);
            }
        };
        child.stdout.on('data', read);
        child.stderr.on('data', (chunk) => { output += chunk; });
        child.on('error', (error) => {
            clearTimeout(timer);
            reject(error);
        });
        child.on('exit', (status, signal) => {
            clearTimeout(timer);
            reject(new Error(`favoritesd ended (${status ?? signal}) before listening:\n${output}`));
        });
    });
    // Keep reading, so that a chatty server never blocks on a full pipe.
    child.stdout.resume();
    child.stderr.resume();

    const server = {
        url,
        catalog,
        dir,
        /** Runs the favorites tool on this catalog: tool(['--user', 'alice', 'tree']). */
        async tool(toolArgs, options) {
            const result = await run(FAVORITES_TOOL, ['--catalog', catalog, ...toolArgs], options);
            if (result.status !== 0) {
                throw new Error(`favorites ${toolArgs.join(' ')} failed (${result.status}): ${result.stderr}`);
            }
            return result.stdout;
        },
        async stop() {
            if (child.exitCode === null && child.signalCode === null) {
                const ended = new Promise((resolve) => child.once('exit', resolve));
                child.kill('SIGTERM');
                const timer = setTimeout(() => child.kill('SIGKILL'), 10_000);
                await ended;
                clearTimeout(timer);
            }
            running.delete(child);
            fs.rmSync(dir, { recursive: true, force: true });
        },
    };
    return server;
}

/** Whether `catalogPath` is one of `user`'s favorites, as the tool says. */
export async function isFavorite(server, user, catalogPath) {
    const out = await server.tool(['--user', user, 'is', catalogPath]);
    if (out.startsWith('yes')) return true;
    if (out.startsWith('no')) return false;
    throw new Error(`unexpected answer of favorites is: ${out}`);
}

/** `user`'s tree as the tool prints it. */
export const toolTree = (server, user) => server.tool(['--user', user, 'tree']);

// ---------------------------------------------------------------------------
// Browser

export function launchBrowser() {
    return chromium.launch({
        executablePath: CHROMIUM,
        args: ['--no-sandbox', '--headless', '--disable-gpu', '--disable-quic', '--no-first-run',
            '--disable-background-networking', '--disable-component-update', '--disable-sync'],
        timeout: START_TIMEOUT,
    });
}

/**
 * A new browser context (its own cookies) and a page in it; `locale` and
 * `timezoneId` set the language and time zone the page sees.
 */
export async function openPage(browser, { viewport = DESKTOP, locale, timezoneId } = {}) {
    const context = await browser.newContext({
        viewport, acceptDownloads: true, ...(locale ? { locale } : {}), ...(timezoneId ? { timezoneId } : {}),
    });
    context.setDefaultTimeout(ACTION_TIMEOUT);
    context.setDefaultNavigationTimeout(ACTION_TIMEOUT);
    const page = await context.newPage();
    const problems = [];
    page.on('pageerror', (error) => problems.push(`page error: ${error.message}`));
    page.problems = problems;
    return { context, page };
}

/** Signs in through the form, as a person would. */
export async function signIn(page, server, user, password = 'demo') {
    await page.goto(server.url);
    await page.getByLabel('User name').fill(user);
    await page.getByLabel('Password').fill(password);
    await page.getByRole('button', { name: 'Sign in' }).click();
    await page.getByText(`Signed in as ${user}`).waitFor();
    await favoritesTree(page).getByRole('listitem').first().waitFor();
}

/** Opens a catalog folder through the address, and waits for its listing. */
export async function openFolder(page, folder) {
    const hash = `#${folder.split('/').map(encodeURIComponent).join('/')}`;
    await page.evaluate((target) => { location.hash = target; }, hash);
    const name = folder.split('/').filter(Boolean).pop() ?? 'All folders';
    await page.getByRole('heading', { level: 3, name, exact: true }).waitFor();
    await catalogList(page).locator('li').first().waitFor();
}

export const catalogSection = (page) => page.getByRole('region', { name: 'Catalog' });
export const catalogList = (page) => catalogSection(page).getByRole('list', { name: /^Items in / });
export const favoritesPanel = (page) => page.getByRole('region', { name: 'My favorites' });
export const favoritesTree = (page) => favoritesPanel(page).getByRole('list', { name: 'My favorites' });

/**
 * The panel's tree as nested arrays of names: ['Sales', ['Revenue by Region',
 * 'Summary'], 'Company KPIs'] (a category is followed by the array of its content).
 */
export function treeNames(page) {
    return favoritesTree(page).evaluate((root) => {
        const read = (list) => {
            const out = [];
            for (const item of list.querySelectorAll(':scope > li.fav-item')) {
                out.push(item.querySelector(':scope > .fav-row .fav-name').textContent.trim());
                if (item.classList.contains('is-category')) {
                    const inner = item.querySelector(':scope > ul');
                    out.push(inner ? read(inner) : []);
                }
            }
            return out;
        };
        return read(root);
    });
}

/** Waits until the panel shows `expected` (as treeNames reads it). */
export async function waitForTree(page, expected, timeout = ACTION_TIMEOUT) {
    const end = Date.now() + timeout;
    let last;
    while (Date.now() < end) {
        last = await treeNames(page);
        if (JSON.stringify(last) === JSON.stringify(expected)) return;
        await page.waitForTimeout(100);
    }
    assert.deepEqual(last, expected, 'the favorites panel shows another tree');
}

/** Waits until `check()` answers true; fails with `message` after `timeout`. */
export async function eventually(check, message, timeout = ACTION_TIMEOUT) {
    const end = Date.now() + timeout;
    while (Date.now() < end) {
        if (await check()) return;
        await new Promise((resolve) => setTimeout(resolve, 100));
    }
    assert.fail(message);
}

// ---------------------------------------------------------------------------
// Keyboard

/** The accessible name of the focused element, roughly: its label or its text. */
export function focusedName(page) {
    return page.evaluate(() => {
        const element = document.activeElement;
        if (!element || element === document.body) return '';
        const labelled = element.getAttribute('aria-label');
        if (labelled) return labelled;
        if (element.labels?.length) return element.labels[0].textContent.trim();
        return element.textContent.trim();
    });
}

/** Presses Tab (Shift+Tab with backwards) until the focused element's name matches. */
export async function tabTo(page, name, { backwards = false, limit = 120 } = {}) {
    const matches = (text) => (name instanceof RegExp ? name.test(text) : text === name);
    for (let i = 0; i < limit; ++i) {
        await page.keyboard.press(backwards ? 'Shift+Tab' : 'Tab');
        if (matches(await focusedName(page))) return;
    }
    assert.fail(`Tab never reached “${name}”`);
}

/** Whether the focused element draws a visible focus indicator. */
export function focusIsVisible(page) {
    return page.evaluate(() => {
        const element = document.activeElement;
        if (!element || element === document.body) return false;
        const style = getComputedStyle(element);
        return (style.outlineStyle !== 'none' && Number.parseFloat(style.outlineWidth) >= 2) || style.boxShadow !== 'none';
    });
}

// ---------------------------------------------------------------------------
// Screenshots and accessibility

/**
 * Writes screenshots of what the page shows at desktop and phone size, as
 * NAME-1280x800.png and NAME-390x844.png. `prepare` runs after each resize
 * (to scroll to what the picture is of). The page keeps the size it had.
 */
export async function screenshots(page, name, prepare) {
    fs.mkdirSync(SCREENSHOT_DIR, { recursive: true });
    const before = page.viewportSize();
    for (const size of [DESKTOP, PHONE]) {
        await page.setViewportSize(size);
        if (prepare) await prepare(size);
        await page.waitForTimeout(150);
        await page.screenshot({ path: path.join(SCREENSHOT_DIR, `${name}-${size.width}x${size.height}.png`) });
    }
    if (before) await page.setViewportSize(before);
}

/** Fails when axe finds a serious or critical violation on the page as it is. */
export async function assertAccessible(page, what) {
    const results = await new AxeBuilder({ page }).analyze();
    const bad = results.violations.filter((v) => v.impact === 'serious' || v.impact === 'critical');
    const report = bad.map((v) => `${v.impact} ${v.id}: ${v.help}\n${v.nodes.map((n) => `  ${n.target.join(' ')}: ${n.failureSummary}`).join('\n')}`);
    assert.equal(bad.length, 0, `accessibility violations on ${what}:\n${report.join('\n')}`);
}

/** Fails when the page threw an uncaught error. */
export function assertNoPageErrors(page) {
    assert.deepEqual(page.problems, [], 'the page threw errors');
}
