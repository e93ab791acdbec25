// Undo, the history of the favorites, and the banner shown when the stored
// favorites cannot be read.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { after, afterEach, before, beforeEach, describe, test } from 'node:test';

import {
    PHONE, TEST_TIMEOUT, assertAccessible, assertNoPageErrors, catalogList, eventually, favoritesPanel,
    focusedName, launchBrowser, openFolder, openPage, screenshots, signIn, startServer, treeNames, waitForTree,
} from './helpers.mjs';

const ALICE_TREE = ['Sales', ['Revenue by Region', 'Summary'], 'Company KPIs'];
const BOB_TREE = ['Month end', ['Profit and Loss', 'Cash Flow']];
const KPIS = '/shared/Common/Company KPIs';

// Parses and validates as a favorites document, but a category's name holds
// a TAB (written as a character reference), which the catalog refuses: the
// favorites stored so do not load.
const UNREADABLE = '<favoritelist xmlns="urn:kiv-web:favorites/v1"><favorite name="a&#9;b" type="category"/></favoritelist>';

/** Stores favorites for `user` that do not load, as another program could. */
async function storeUnreadable(server, user, { keepVersions } = {}) {
    const file = path.join(server.dir, `${user}-unreadable.xml`);
    fs.writeFileSync(file, UNREADABLE);
    await server.tool([...(keepVersions === undefined ? [] : ['--keep-versions', String(keepVersions)]),
        'catalog', 'put', `/users/${user}/favorites`, '--signature', 'mobilefavorites1', '--body', file]);
}

/** `user`'s tree as the tool gives it in JSON. */
const jsonTree = async (server, user) => JSON.parse(await server.tool(['--user', user, '--json', 'tree'])).items;

/** The versions the tool lists for `user`, newest first, and its warning if any. */
const toolHistory = async (server, user) => JSON.parse(await server.tool(['--user', user, '--json', 'history']));

const undoButton = (page) => favoritesPanel(page).getByRole('button', { name: 'Undo last change', exact: true });
const historyDialog = (page) => page.getByRole('dialog', { name: 'History of your favorites' });

/** Gives bob three kept versions, the newest of which does not load. Answers his versions. */
async function bobWithHistory(server) {
    await server.tool(['--user', 'bob', 'add', KPIS]); // keeps version 1: bob's tree from the demo
    await storeUnreadable(server, 'bob'); // keeps version 2: the tree with the KPIs
    await server.tool(['--user', 'bob', 'mkcat', 'Fresh start']); // keeps version 3: what does not load
    return (await toolHistory(server, 'bob')).versions;
}

describe('undo and history', { timeout: TEST_TIMEOUT * 8 }, () => {
    let browser;
    let server;
    let context;
    let page;

    before(async () => {
        browser = await launchBrowser();
    }, { timeout: TEST_TIMEOUT });

    after(async () => {
        await browser?.close();
    }, { timeout: TEST_TIMEOUT });

    beforeEach(async () => {
        server = await startServer();
    }, { timeout: TEST_TIMEOUT });

    afterEach(async () => {
        await context?.close();
        context = null;
        await server?.stop();
    }, { timeout: TEST_TIMEOUT });

    test('Undo after adding a favorite puts the tree back and turns the star off; Undo again puts the add back',
        { timeout: TEST_TIMEOUT }, async () => {
            ({ context, page } = await openPage(browser));
            await signIn(page, server, 'alice');
            await waitForTree(page, ALICE_TREE);
            const original = await jsonTree(server, 'alice');

            await openFolder(page, '/shared/Sales/Reports');
            const list = catalogList(page);
            await list.getByRole('button', { name: 'Add Pipeline to favorites' }).click();
            const dialog = page.getByRole('dialog', { name: 'Add Pipeline to favorites' });
            await dialog.getByRole('button', { name: 'Add to favorites' }).click();
            await dialog.waitFor({ state: 'detached' });
            await waitForTree(page, [...ALICE_TREE, 'Pipeline']);
            const added = await jsonTree(server, 'alice');
            assert.notDeepEqual(added, original);

            const undo = undoButton(page);
            await eventually(() => undo.isEnabled(), 'Undo is offered after a change');
            assert.match(await undo.getAttribute('title'), /Pressing Undo again undoes the undo/);
            await undo.click();
            await waitForTree(page, ALICE_TREE);
            const off = list.getByRole('button', { name: 'Add Pipeline to favorites' });
            await off.waitFor();
            assert.equal(await off.getAttribute('aria-pressed'), 'false');
            assert.deepEqual(await jsonTree(server, 'alice'), original);
            await favoritesPanel(page).getByRole('status')
                .filter({ hasText: /^Undid the last change: .*\(1 category and 3 favorites\)\. Press Undo again to undo this\.$/ })
                .waitFor();

            // The undo kept the version it replaced: a second Undo puts the add back.
            await undo.click();
            await waitForTree(page, [...ALICE_TREE, 'Pipeline']);
            const on = list.getByRole('button', { name: 'Remove Pipeline from favorites' });
            await on.waitFor();
            assert.equal(await on.getAttribute('aria-pressed'), 'true');
            assert.deepEqual(await jsonTree(server, 'alice'), added);
            assert.equal(await focusedName(page), 'Undo last change', 'the focus stays on Undo');
            assertNoPageErrors(page);
        });

    test('Undo is off for a user without earlier versions, and comes on with the first change',
        { timeout: TEST_TIMEOUT }, async () => {
            assert.deepEqual((await toolHistory(server, 'carol')).versions, [], 'carol starts without history');
            ({ context, page } = await openPage(browser));
            await signIn(page, server, 'carol');
            await waitForTree(page, []);
            const undo = undoButton(page);
            assert.equal(await undo.isDisabled(), true);
            assert.match(await undo.getAttribute('title'), /no earlier version/);

            await favoritesPanel(page).getByRole('button', { name: 'New category' }).click();
            const make = page.getByRole('dialog', { name: 'New category' });
            await make.getByLabel('Name').fill('Weekly');
            await make.getByRole('button', { name: 'Make category' }).click();
            await make.waitFor({ state: 'detached' });
            await waitForTree(page, ['Weekly', []]);
            await eventually(() => undo.isEnabled(), 'Undo is offered after the first change');

            await undo.click();
            await waitForTree(page, []);
            assert.deepEqual(await jsonTree(server, 'carol'), []);
            assertNoPageErrors(page);
        });

    test('the history dialog lists the versions newest first with their counts, an unreadable one without Restore, '
        + 'and Restore puts exactly the chosen version back', { timeout: TEST_TIMEOUT }, async () => {
        const original = await jsonTree(server, 'bob');
        const versions = await bobWithHistory(server);
        assert.deepEqual(versions.map((v) => [v.version, v.readable]), [[3, false], [2, true], [1, true]]);

        // Times are shown in the reader's time zone: Tokyo is UTC+9 all year.
        ({ context, page } = await openPage(browser, { locale: 'en-GB', timezoneId: 'Asia/Tokyo' }));
        await signIn(page, server, 'bob');
        await waitForTree(page, ['Fresh start', []]);
        await favoritesPanel(page).getByRole('button', { name: 'History', exact: true }).click();
        const dialog = historyDialog(page);
        await dialog.waitFor();
        assert.equal(await focusedName(page), 'Close', 'the focus starts on Close, not on a Restore');

        const rows = dialog.getByRole('list', { name: 'Earlier versions' }).getByRole('listitem');
        assert.equal(await rows.count(), versions.length);
        for (const [index, version] of versions.entries()) {
            const row = rows.nth(index);
            const text = (await row.textContent()).replace(/\s+/g, ' ');
            assert.match(text, new RegExp(`Version ${version.version} · `));
            const time = row.locator('time');
            assert.equal(await time.getAttribute('datetime'), version.replaced);
            const tokyo = new Date(Date.parse(version.replaced) + 9 * 3600 * 1000).toISOString();
            assert.ok((await time.textContent()).includes(tokyo.slice(11, 19)), `${await time.textContent()} is ${tokyo} in Tokyo`);
            const restore = row.getByRole('button', { name: /^Restore/ });
            if (version.readable) {
                assert.match(text, index === 1 ? /1 category and 3 favorites/ : /1 category and 2 favorites/);
                assert.equal(await restore.count(), 1);
            } else {
                assert.match(text, /cannot be read: .*kItemNameControlCharacter/);
                assert.equal(await restore.count(), 0, 'an unreadable version has no Restore');
            }
        }
        await screenshots(page, 'history-dialog');

        const [, , oldest] = versions;
        await dialog.getByRole('button', { name: new RegExp(`^Restore version ${oldest.version}, replaced `) }).click();
        await dialog.waitFor({ state: 'detached' });
        await waitForTree(page, BOB_TREE);
        assert.deepEqual(await jsonTree(server, 'bob'), original);
        await favoritesPanel(page).getByRole('status')
            .filter({ hasText: `Restored version ${oldest.version}: ` }).waitFor();
        assert.equal(await focusedName(page), 'History', 'the focus is back on History');

        // The restore kept what it replaced, ready to be undone.
        const [newest] = (await toolHistory(server, 'bob')).versions;
        assert.deepEqual([newest.version, newest.readable, newest.categories, newest.catalogObjects], [4, true, 1, 0]);
        assertNoPageErrors(page);
    });

    test('a banner names why the stored favorites cannot be read, and its button restores the last readable version',
        { timeout: TEST_TIMEOUT }, async () => {
            const original = await jsonTree(server, 'alice');
            await storeUnreadable(server, 'alice');
            ({ context, page } = await openPage(browser));
            await signIn(page, server, 'alice');

            const panel = favoritesPanel(page);
            const banner = panel.getByRole('alert').filter({ hasText: 'cannot be read' });
            await banner.waitFor();
            assert.match(await banner.textContent(), /kItemNameControlCharacter/);
            assert.deepEqual(await treeNames(page), []);
            await panel.getByText('Your stored favorites cannot be read, so none are shown.').waitFor();
            await screenshots(page, 'unreadable-banner', async () => {
                await panel.getByRole('heading', { name: 'My favorites' }).evaluate((heading) => heading.scrollIntoView({ block: 'start' }));
            });
            await assertAccessible(page, 'the banner about favorites that cannot be read');

            await banner.getByRole('button', { name: 'Restore the last readable version' }).click();
            await banner.waitFor({ state: 'hidden' });
            await waitForTree(page, ALICE_TREE);
            assert.deepEqual(await jsonTree(server, 'alice'), original);
            assert.equal((await toolHistory(server, 'alice')).warning, undefined, 'the stored favorites load again');
            await panel.getByRole('status').filter({ hasText: /^Restored your favorites as they were before / }).waitFor();

            await page.reload();
            await waitForTree(page, ALICE_TREE);
            assert.equal(await banner.count(), 0);
            assertNoPageErrors(page);
        });

    test('the banner says so when no readable version is kept', { timeout: TEST_TIMEOUT }, async () => {
        await storeUnreadable(server, 'carol', { keepVersions: 0 });
        assert.deepEqual((await toolHistory(server, 'carol')).versions, []);
        ({ context, page } = await openPage(browser));
        await signIn(page, server, 'carol');
        const banner = favoritesPanel(page).getByRole('alert').filter({ hasText: 'cannot be read' });
        await banner.waitFor();
        await banner.getByRole('button', { name: 'Restore the last readable version' }).click();
        await banner.getByText('No readable earlier version is kept, so there is nothing to restore.').waitFor();
        assert.equal(await banner.isVisible(), true);
        assertNoPageErrors(page);
    });

    test('the page with the history dialog open passes the accessibility check, at both widths',
        { timeout: TEST_TIMEOUT }, async () => {
            await bobWithHistory(server);
            ({ context, page } = await openPage(browser));
            await signIn(page, server, 'bob');
            const history = favoritesPanel(page).getByRole('button', { name: 'History', exact: true });
            await history.click();
            const dialog = historyDialog(page);
            await dialog.waitFor();
            await assertAccessible(page, 'the history dialog');

            await page.setViewportSize(PHONE);
            await assertAccessible(page, 'the history dialog on a phone');
            const overflow = await page.evaluate(() => document.documentElement.scrollWidth - window.innerWidth);
            assert.ok(overflow <= 0, `the page is ${overflow}px wider than the phone's screen`);
            const box = await dialog.boundingBox();
            assert.ok(box.x >= 0 && box.x + box.width <= PHONE.width, 'the dialog fits the phone\'s screen');

            // Escape closes it and the focus goes back to History.
            await page.keyboard.press('Escape');
            await dialog.waitFor({ state: 'detached' });
            assert.equal(await focusedName(page), 'History');
            assertNoPageErrors(page);
        });
});
