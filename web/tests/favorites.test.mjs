// The favorites panel: categories, moves and reorders by pointer and by
// keyboard, changes made elsewhere, the filter, export and import.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { after, afterEach, before, beforeEach, describe, test } from 'node:test';

import {
    ALICE_FAVORITES, CHANGED_ELSEWHERE, TEST_TIMEOUT, assertAccessible, assertNoPageErrors, catalogList,
    eventually, favoritesPanel, favoritesTree, focusIsVisible, focusedName, isFavorite, launchBrowser, openFolder,
    openPage, screenshots, signIn, startServer, tabTo, toolTree, waitForTree,
} from './helpers.mjs';

const ALICE_TREE = ['Sales', ['Revenue by Region', 'Summary'], 'Company KPIs'];

describe('the favorites panel', { timeout: TEST_TIMEOUT * 10 }, () => {
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
        ({ context, page } = await openPage(browser));
        await signIn(page, server, 'alice');
        await waitForTree(page, ALICE_TREE);
    }, { timeout: TEST_TIMEOUT });

    afterEach(async () => {
        await context?.close();
        await server?.stop();
    }, { timeout: TEST_TIMEOUT });

    test('categories are made, renamed and removed, saying how much goes with them', { timeout: TEST_TIMEOUT }, async () => {
        const panel = favoritesPanel(page);
        await screenshots(page, 'favorites', async () => {
            await panel.getByRole('heading', { name: 'My favorites' }).evaluate((heading) => heading.scrollIntoView({ block: 'start' }));
        });
        await assertAccessible(page, 'the favorites panel');

        await panel.getByRole('button', { name: 'New category' }).click();
        const make = page.getByRole('dialog', { name: 'New category' });
        await make.getByLabel('Name').fill('Month end');
        await make.getByRole('button', { name: 'Make category' }).click();
        await make.waitFor({ state: 'detached' });
        await waitForTree(page, [...ALICE_TREE, 'Month end', []]);
        assert.match(await toolTree(server, 'alice'), /^Month end\/$/m);

        // A second category of the same name is refused next to the name.
        await panel.getByRole('button', { name: 'New category' }).click();
        await make.getByLabel('Name').fill('Month end');
        await make.getByRole('button', { name: 'Make category' }).click();
        const refusal = make.getByRole('alert').filter({ hasText: /\S/ });
        await refusal.waitFor();
        assert.doesNotMatch(await refusal.textContent(), /\b409\b/);
        await make.getByRole('button', { name: 'Cancel' }).click();
        await make.waitFor({ state: 'detached' });

        await panel.getByRole('button', { name: 'Rename Month end' }).click();
        const rename = page.getByRole('dialog', { name: 'Rename Month end' });
        await rename.getByLabel('New name').fill('Quarter end');
        await rename.getByRole('button', { name: 'Rename' }).click();
        await rename.waitFor({ state: 'detached' });
        await waitForTree(page, [...ALICE_TREE, 'Quarter end', []]);
        await page.reload();
        await waitForTree(page, [...ALICE_TREE, 'Quarter end', []]);
        assert.match(await toolTree(server, 'alice'), /^Quarter end\/$/m);

        await panel.getByRole('button', { name: 'Remove category Sales' }).click();
        const confirm = page.getByRole('dialog', { name: 'Remove category Sales' });
        await confirm.getByText('Remove the category “Sales” and the 2 items in it (2 favorites)?').waitFor();
        await confirm.getByRole('button', { name: 'Remove category' }).click();
        await confirm.waitFor({ state: 'detached' });
        await waitForTree(page, ['Company KPIs', 'Quarter end', []]);
        assert.equal(await isFavorite(server, 'alice', '/shared/Sales/Reports/Revenue by Region'), false);
        assert.equal(await isFavorite(server, 'alice', '/shared/Common/Company KPIs'), true);
        assertNoPageErrors(page);
    });

    test('a reorder and a move survive a reload', { timeout: TEST_TIMEOUT }, async () => {
        const panel = favoritesPanel(page);
        await panel.getByRole('button', { name: 'Move Company KPIs up' }).click();
        await waitForTree(page, ['Company KPIs', 'Sales', ['Revenue by Region', 'Summary']]);

        await panel.getByRole('button', { name: 'Move Summary to…' }).click();
        const move = page.getByRole('dialog', { name: 'Move Summary to…' });
        await move.getByLabel('Top level').check();
        await move.getByRole('button', { name: 'Move' }).click();
        await move.waitFor({ state: 'detached' });
        await waitForTree(page, ['Company KPIs', 'Sales', ['Revenue by Region'], 'Summary']);

        // The last item of a category cannot go further down.
        assert.equal(await panel.getByRole('button', { name: 'Move Revenue by Region down' }).getAttribute('aria-disabled'), 'true');

        await page.reload();
        await waitForTree(page, ['Company KPIs', 'Sales', ['Revenue by Region'], 'Summary']);
        assert.equal(await toolTree(server, 'alice'), [
            'Company KPIs -> /shared/Common/Company KPIs',
            'Sales/',
            '  Revenue by Region -> /shared/Sales/Reports/Revenue by Region',
            'Summary -> /shared/Sales/Dashboards/Sales Overview/Summary',
            '',
        ].join('\n'));
        assertNoPageErrors(page);
    });

    test('drag and drop puts an item into a category and reorders a category', { timeout: TEST_TIMEOUT }, async () => {
        const panel = favoritesPanel(page);
        const row = (name) => favoritesTree(page).getByRole('listitem')
            .filter({ has: page.getByRole('button', { name: `Move ${name} up`, exact: true }) }).last();

        // Dropped on the middle of a category's row: into the category, last.
        await row('Company KPIs').getByRole('link', { name: 'Company KPIs' })
            .dragTo(panel.getByText('Sales', { exact: true }));
        await waitForTree(page, ['Sales', ['Revenue by Region', 'Summary', 'Company KPIs']]);

        // Dropped on the upper edge of a row: before it.
        const target = row('Revenue by Region').getByRole('link', { name: 'Revenue by Region' });
        await row('Summary').getByRole('link', { name: 'Summary' }).dragTo(target, { targetPosition: { x: 4, y: 1 } });
        await waitForTree(page, ['Sales', ['Summary', 'Revenue by Region', 'Company KPIs']]);

        await page.reload();
        await waitForTree(page, ['Sales', ['Summary', 'Revenue by Region', 'Company KPIs']]);
        assertNoPageErrors(page);
    });

    test('the keyboard alone stars an item and moves it', { timeout: TEST_TIMEOUT }, async () => {
        await openFolder(page, '/shared/Sales/Reports');

        await tabTo(page, 'Add Pipeline to favorites');
        assert.equal(await focusIsVisible(page), true, 'the star shows that it has the focus');
        await page.keyboard.press('Enter');
        const dialog = page.getByRole('dialog', { name: 'Add Pipeline to favorites' });
        await dialog.waitFor();
        assert.equal(await focusedName(page), 'Top level (no category)');
        await page.keyboard.press('ArrowDown');
        assert.equal(await focusedName(page), 'Sales');
        await page.keyboard.press('Enter');
        await dialog.waitFor({ state: 'detached' });
        await waitForTree(page, ['Sales', ['Revenue by Region', 'Summary', 'Pipeline'], 'Company KPIs']);
        // The focus is back on the star, now pressed.
        assert.equal(await focusedName(page), 'Remove Pipeline from favorites');
        assert.equal(await isFavorite(server, 'alice', '/shared/Sales/Reports/Pipeline'), true);

        await tabTo(page, 'Move Pipeline up');
        assert.equal(await focusIsVisible(page), true, 'the move button shows that it has the focus');
        await page.keyboard.press('Enter');
        await waitForTree(page, ['Sales', ['Revenue by Region', 'Pipeline', 'Summary'], 'Company KPIs']);
        assert.equal(await focusedName(page), 'Move Pipeline up', 'the focus stays with the moved item');

        await page.keyboard.press('Alt+ArrowUp');
        await waitForTree(page, ['Sales', ['Pipeline', 'Revenue by Region', 'Summary'], 'Company KPIs']);

        await tabTo(page, 'Move Pipeline to…');
        await page.keyboard.press('Enter');
        const move = page.getByRole('dialog', { name: 'Move Pipeline to…' });
        await move.waitFor();
        assert.equal(await focusedName(page), 'Top level');
        await page.keyboard.press('Enter');
        await move.waitFor({ state: 'detached' });
        await waitForTree(page, ['Sales', ['Revenue by Region', 'Summary'], 'Company KPIs', 'Pipeline']);
        assert.equal(await focusedName(page), 'Move Pipeline to…');

        await page.keyboard.press('Alt+ArrowUp');
        await waitForTree(page, ['Sales', ['Revenue by Region', 'Summary'], 'Pipeline', 'Company KPIs']);
        await page.reload();
        await waitForTree(page, ['Sales', ['Revenue by Region', 'Summary'], 'Pipeline', 'Company KPIs']);
        assertNoPageErrors(page);
    });

    test('a change made in another tab is noticed, said in plain words, and the tree reloaded',
        { timeout: TEST_TIMEOUT }, async () => {
            const other = await context.newPage();
            other.problems = [];
            other.on('pageerror', (error) => other.problems.push(`page error: ${error.message}`));
            await other.goto(server.url);
            await other.getByText('Signed in as alice').waitFor();
            await waitForTree(other, ALICE_TREE);

            // The other tab makes a category ...
            await favoritesPanel(other).getByRole('button', { name: 'New category' }).click();
            const make = other.getByRole('dialog', { name: 'New category' });
            await make.getByLabel('Name').fill('From the other tab');
            await make.getByRole('button', { name: 'Make category' }).click();
            await make.waitFor({ state: 'detached' });
            await waitForTree(other, [...ALICE_TREE, 'From the other tab', []]);

            // ... and this one, which still shows the old tree, reorders.
            const panel = favoritesPanel(page);
            await waitForTree(page, ALICE_TREE);
            await panel.getByRole('button', { name: 'Move Company KPIs up' }).click();
            await panel.getByRole('status').filter({ hasText: CHANGED_ELSEWHERE }).waitFor();
            // The reorder was made on a tree that no longer was: it is not applied.
            await waitForTree(page, [...ALICE_TREE, 'From the other tab', []]);
            assert.match(await toolTree(server, 'alice'), /^Sales\/\n(?:  .*\n)*Company KPIs -> .*\nFrom the other tab\/\n$/);

            // Made again on the reloaded tree, it is.
            await panel.getByRole('button', { name: 'Move Company KPIs up' }).click();
            await waitForTree(page, ['Company KPIs', 'Sales', ['Revenue by Region', 'Summary'], 'From the other tab', []]);

            // A change by another program shows when the tab is looked at again.
            await server.tool(['--user', 'alice', 'mkcat', 'From the tool']);
            await page.evaluate(() => window.dispatchEvent(new Event('focus')));
            await waitForTree(page, ['Company KPIs', 'Sales', ['Revenue by Region', 'Summary'], 'From the other tab', [], 'From the tool', []]);
            await panel.getByRole('status').filter({ hasText: CHANGED_ELSEWHERE }).waitFor();
            assertNoPageErrors(page);
            assertNoPageErrors(other);
        });

    test('the filter shows only reports or only dashboards', { timeout: TEST_TIMEOUT }, async () => {
        const panel = favoritesPanel(page);
        await panel.getByLabel('Reports').check();
        await waitForTree(page, ['Sales', ['Revenue by Region'], 'Company KPIs']);
        assert.equal(await panel.getByRole('button', { name: /^Move / }).count(), 0, 'no rearranging while filtered');
        await panel.getByLabel('Dashboards').check();
        await waitForTree(page, ['Sales', ['Summary']]);
        await panel.getByLabel('All').check();
        await waitForTree(page, ALICE_TREE);
        assertNoPageErrors(page);
    });

    test('an export imports back, after a preview with the counts', { timeout: TEST_TIMEOUT }, async () => {
        const panel = favoritesPanel(page);
        const exported = await server.tool(['--user', 'alice', 'export', '--format', 'json']);

        const [jsonDownload] = await Promise.all([
            page.waitForEvent('download'),
            panel.getByRole('link', { name: 'Export as JSON' }).click(),
        ]);
        const jsonFile = path.join(server.dir, 'export.json');
        await jsonDownload.saveAs(jsonFile);
        const jsonText = fs.readFileSync(jsonFile, 'utf8');
        assert.deepEqual(JSON.parse(jsonText), JSON.parse(exported));
        assert.deepEqual(JSON.parse(jsonText), ALICE_FAVORITES);

        const [xmlDownload] = await Promise.all([
            page.waitForEvent('download'),
            panel.getByRole('link', { name: 'Export as XML' }).click(),
        ]);
        const xmlFile = path.join(server.dir, 'export.xml');
        await xmlDownload.saveAs(xmlFile);
        const xml = fs.readFileSync(xmlFile, 'utf8');
        assert.match(xml, /^<\?xml/);
        assert.match(xml, /favoritelist/);
        assert.match(xml, /catalogpath="\/shared\/Sales\/Reports\/Revenue by Region"/);

        // Something else replaces the favorites meanwhile.
        await server.tool(['--user', 'alice', 'replace-json', '-'],
            { input: JSON.stringify([{ type: '0', path: '/shared/Common/Holiday Calendar' }]) });
        await page.reload();
        await waitForTree(page, ['Holiday Calendar']);

        // A file that is not an export is refused next to the file input.
        const notJson = path.join(server.dir, 'notes.json');
        fs.writeFileSync(notJson, 'these are not favorites');
        await panel.getByLabel('Import from a JSON export').setInputFiles(notJson);
        await panel.getByRole('alert').filter({ hasText: 'not JSON' }).waitFor();

        await panel.getByLabel('Import from a JSON export').setInputFiles(jsonFile);
        const preview = page.getByRole('dialog', { name: 'Import favorites' });
        await preview.getByText(/holds 1 category and 3 favorites\. Confirming replaces your current favorites \(1 favorite\)/).waitFor();
        const shown = preview.getByRole('group', { name: 'Favorites in the file' });
        for (const name of ['Sales', 'Revenue by Region', 'Summary', 'Company KPIs']) {
            await shown.getByText(name, { exact: true }).waitFor();
        }
        await preview.getByRole('button', { name: 'Confirm import' }).click();
        await preview.waitFor({ state: 'detached' });
        await waitForTree(page, ALICE_TREE);
        await panel.getByRole('status').filter({ hasText: '1 category and 3 favorites' }).waitFor();
        assert.deepEqual(JSON.parse(await server.tool(['--user', 'alice', 'export', '--format', 'json'])), ALICE_FAVORITES);
        assertNoPageErrors(page);
    });

    test('the phone layout keeps every control reachable', { timeout: TEST_TIMEOUT }, async () => {
        await page.setViewportSize({ width: 390, height: 844 });
        await openFolder(page, '/shared/Sales/Reports');
        await catalogList(page).getByRole('button', { name: 'Add Top Customers to favorites' }).click();
        const dialog = page.getByRole('dialog', { name: 'Add Top Customers to favorites' });
        await dialog.getByRole('button', { name: 'Add to favorites' }).click();
        await dialog.waitFor({ state: 'detached' });
        await waitForTree(page, [...ALICE_TREE, 'Top Customers']);
        const up = favoritesPanel(page).getByRole('button', { name: 'Move Top Customers up' });
        await up.scrollIntoViewIfNeeded();
        await up.click();
        await waitForTree(page, ['Sales', ['Revenue by Region', 'Summary'], 'Top Customers', 'Company KPIs']);
        // Nothing is wider than the screen.
        const overflow = await page.evaluate(() => document.documentElement.scrollWidth - window.innerWidth);
        assert.ok(overflow <= 0, `the page is ${overflow}px wider than the phone's screen`);
        await assertAccessible(page, 'the phone layout');
        assertNoPageErrors(page);
    });
});
