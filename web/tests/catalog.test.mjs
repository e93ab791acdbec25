// Browsing the catalog and starring what is in it.

import assert from 'node:assert/strict';
import { after, before, beforeEach, afterEach, describe, test } from 'node:test';

import {
    TEST_TIMEOUT, assertAccessible, assertNoPageErrors, catalogList, catalogSection, eventually, favoritesPanel,
    isFavorite, launchBrowser, openFolder, openPage, screenshots, signIn, startServer, waitForTree,
} from './helpers.mjs';

describe('the catalog', { timeout: TEST_TIMEOUT * 8 }, () => {
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
    }, { timeout: TEST_TIMEOUT });

    afterEach(async () => {
        await context?.close();
        await server?.stop();
    }, { timeout: TEST_TIMEOUT });

    test('a folder is listed with one request, with breadcrumbs and an icon and kind for each item',
        { timeout: TEST_TIMEOUT }, async () => {
            await signIn(page, server, 'alice');
            await openFolder(page, '/shared');

            const listings = [];
            const others = [];
            page.on('request', (request) => {
                const url = new URL(request.url());
                if (url.pathname === '/api/v1/catalog/children') listings.push(url.searchParams.get('path'));
                else if (url.pathname === '/api/v1/favorites/status') others.push(url.pathname);
            });

            // Into Sales by its link, then into Dashboards and the dashboard.
            await catalogList(page).getByRole('link', { name: 'Sales', exact: true }).click();
            await page.getByRole('heading', { level: 3, name: 'Sales', exact: true }).waitFor();
            const list = catalogList(page);
            await list.getByRole('link', { name: 'Reports' }).waitFor();
            await list.getByRole('link', { name: 'Dashboards' }).waitFor();
            const link = list.getByRole('listitem').filter({ hasText: 'Latest Revenue' });
            await link.getByText('Link to /shared/Sales/Reports/Revenue by Region').waitFor();
            assert.equal(await link.getByRole('button', { name: 'Add Latest Revenue to favorites' }).getAttribute('aria-pressed'), 'false');
            // Plain folders carry no star.
            assert.equal(await list.getByRole('button', { name: /Reports/ }).count(), 0);
            await page.waitForLoadState('networkidle');
            assert.deepEqual(listings, ['/shared/Sales'], 'one listing request for the folder');

            await list.getByRole('link', { name: 'Dashboards' }).click();
            await page.getByRole('heading', { level: 3, name: 'Dashboards', exact: true }).waitFor();
            const dashboard = catalogList(page).getByRole('listitem').filter({ hasText: 'Sales Overview' });
            await dashboard.getByText('Dashboard', { exact: true }).waitFor();
            await dashboard.getByRole('button', { name: 'Add Sales Overview to favorites' }).waitFor();

            await dashboard.getByRole('link', { name: 'Sales Overview' }).click();
            await page.getByRole('heading', { level: 3, name: 'Sales Overview', exact: true }).waitFor();
            const pages = catalogList(page);
            await pages.getByRole('listitem').first().waitFor();
            for (const name of ['Summary', 'Regions', 'Trends']) {
                const item = pages.getByRole('listitem').filter({ hasText: name });
                await item.getByText('Dashboard page', { exact: true }).waitFor();
            }
            // alice keeps the Summary page among her favorites.
            const summary = pages.getByRole('button', { name: 'Remove Summary from favorites' });
            assert.equal(await summary.getAttribute('aria-pressed'), 'true');
            assert.equal(await pages.getByRole('button', { name: 'Add Regions to favorites' }).getAttribute('aria-pressed'), 'false');

            const crumbs = page.getByRole('navigation', { name: 'Breadcrumb' });
            for (const name of ['Catalog', 'shared', 'Sales', 'Dashboards']) await crumbs.getByRole('link', { name, exact: true }).waitFor();
            assert.equal(await crumbs.getByText('Sales Overview').getAttribute('aria-current'), 'page');

            await page.waitForLoadState('networkidle');
            assert.deepEqual(listings, ['/shared/Sales', '/shared/Sales/Dashboards', '/shared/Sales/Dashboards/Sales Overview']);
            assert.deepEqual(others, [], 'no request per item');

            await assertAccessible(page, 'a catalog listing');

            // Back up by the breadcrumbs.
            await crumbs.getByRole('link', { name: 'Sales', exact: true }).click();
            await page.getByRole('heading', { level: 3, name: 'Sales', exact: true }).waitFor();
            assert.match(page.url(), /#\/shared\/Sales$/);

            await openFolder(page, '/shared/Sales/Reports');
            await screenshots(page, 'catalog', async () => {
                await page.getByRole('navigation', { name: 'Breadcrumb' }).scrollIntoViewIfNeeded();
            });
            assertNoPageErrors(page);
        });

    test('starring an item into a category, and unstarring it, shows in the listing, the panel and the tool',
        { timeout: TEST_TIMEOUT }, async () => {
            await signIn(page, server, 'alice');
            await openFolder(page, '/shared/Sales/Reports');
            const list = catalogList(page);

            const star = list.getByRole('button', { name: 'Add Pipeline to favorites' });
            assert.equal(await star.getAttribute('aria-pressed'), 'false');
            await star.click();

            const dialog = page.getByRole('dialog', { name: 'Add Pipeline to favorites' });
            await dialog.waitFor();
            // The top level is chosen unless something else is.
            assert.equal(await dialog.getByLabel('Top level (no category)').isChecked(), true);
            await screenshots(page, 'star-dialog');
            await assertAccessible(page, 'the star dialog');
            await dialog.getByLabel('Sales', { exact: true }).check();
            await dialog.getByRole('button', { name: 'Add to favorites' }).click();
            await dialog.waitFor({ state: 'detached' });

            const pressed = list.getByRole('button', { name: 'Remove Pipeline from favorites' });
            assert.equal(await pressed.getAttribute('aria-pressed'), 'true');
            await waitForTree(page, ['Sales', ['Revenue by Region', 'Summary', 'Pipeline'], 'Company KPIs']);
            assert.equal(await isFavorite(server, 'alice', '/shared/Sales/Reports/Pipeline'), true);

            await pressed.click();
            const unpressed = list.getByRole('button', { name: 'Add Pipeline to favorites' });
            await unpressed.waitFor();
            assert.equal(await unpressed.getAttribute('aria-pressed'), 'false');
            await waitForTree(page, ['Sales', ['Revenue by Region', 'Summary'], 'Company KPIs']);
            assert.equal(await isFavorite(server, 'alice', '/shared/Sales/Reports/Pipeline'), false);
            assertNoPageErrors(page);
        });

    test('starring into a new category, and unstarring an item kept in two places, from one or from all',
        { timeout: TEST_TIMEOUT }, async () => {
            await signIn(page, server, 'alice');
            await openFolder(page, '/shared/Sales/Reports');
            const list = catalogList(page);

            await list.getByRole('button', { name: 'Add Top Customers to favorites' }).click();
            const dialog = page.getByRole('dialog', { name: 'Add Top Customers to favorites' });
            await dialog.getByLabel('Name of the new category').fill('Weekly');
            assert.equal(await dialog.getByLabel('New category', { exact: true }).isChecked(), true);
            await dialog.getByRole('button', { name: 'Add to favorites' }).click();
            await dialog.waitFor({ state: 'detached' });
            await waitForTree(page, ['Sales', ['Revenue by Region', 'Summary'], 'Company KPIs', 'Weekly', ['Top Customers']]);

            // Another program puts it at the top level as well.
            await server.tool(['--user', 'alice', 'add', '/shared/Sales/Reports/Top Customers']);

            await list.getByRole('button', { name: 'Remove Top Customers from favorites' }).click();
            const choice = page.getByRole('dialog', { name: 'Remove Top Customers from favorites' });
            await choice.getByText(/is in 2 places in your favorites: “Weekly” and the top level/).waitFor();
            await choice.getByRole('button', { name: 'Remove from Weekly only' }).click();
            await choice.waitFor({ state: 'detached' });
            await waitForTree(page, ['Sales', ['Revenue by Region', 'Summary'], 'Company KPIs', 'Weekly', [], 'Top Customers']);
            assert.equal(await list.getByRole('button', { name: 'Remove Top Customers from favorites' }).getAttribute('aria-pressed'), 'true');
            assert.equal(await isFavorite(server, 'alice', '/shared/Sales/Reports/Top Customers'), true);

            await server.tool(['--user', 'alice', 'add', '/shared/Sales/Reports/Top Customers', '--category', 'Sales']);
            await list.getByRole('button', { name: 'Remove Top Customers from favorites' }).click();
            const again = page.getByRole('dialog', { name: 'Remove Top Customers from favorites' });
            await again.getByRole('button', { name: 'Remove from all' }).click();
            await again.waitFor({ state: 'detached' });
            await list.getByRole('button', { name: 'Add Top Customers to favorites' }).waitFor();
            await waitForTree(page, ['Sales', ['Revenue by Region', 'Summary'], 'Company KPIs', 'Weekly', []]);
            assert.equal(await isFavorite(server, 'alice', '/shared/Sales/Reports/Top Customers'), false);
            assertNoPageErrors(page);
        });

    test('what alice may not read is not listed, and opening it directly says why, without stars',
        { timeout: TEST_TIMEOUT }, async () => {
            await signIn(page, server, 'alice');
            await openFolder(page, '/shared');
            const list = catalogList(page);
            await list.getByRole('link', { name: 'Common' }).waitFor();
            await list.getByRole('link', { name: 'Sales' }).waitFor();
            assert.equal(await list.getByRole('link', { name: 'Finance' }).count(), 0);
            assert.equal(await list.getByRole('link', { name: 'HR' }).count(), 0);

            await page.evaluate(() => { location.hash = '#/shared/Finance/Reports'; });
            await page.getByRole('heading', { level: 3, name: 'Reports', exact: true }).waitFor();
            const error = catalogSection(page).getByRole('alert').filter({ hasText: /\S/ });
            await error.waitFor();
            const message = (await error.textContent()).trim();
            assert.doesNotMatch(message, /\b40\d\b/, 'the error shows a status code instead of words');
            assert.equal(await catalogSection(page).getByRole('button', { name: /favorites/ }).count(), 0);
            assert.equal(await isFavorite(server, 'alice', '/shared/Finance/Reports/Cash Flow'), false);

            // bob, in finance, sees the folder and his own favorites in it.
            const bob = await openPage(browser);
            try {
                await signIn(bob.page, server, 'bob');
                await openFolder(bob.page, '/shared/Finance/Reports');
                const star = catalogList(bob.page).getByRole('button', { name: 'Remove Profit and Loss from favorites' });
                assert.equal(await star.getAttribute('aria-pressed'), 'true');
            } finally {
                await bob.context.close();
            }
            assertNoPageErrors(page);
        });

    test('a favorite opens its place in the catalog', { timeout: TEST_TIMEOUT }, async () => {
        await signIn(page, server, 'alice');
        await favoritesPanel(page).getByRole('link', { name: 'Summary' }).click();
        await page.getByRole('heading', { level: 3, name: 'Sales Overview', exact: true }).waitFor();
        assert.match(decodeURIComponent(page.url()), /#\/shared\/Sales\/Dashboards\/Sales Overview$/);
        await catalogList(page).getByRole('button', { name: 'Remove Summary from favorites' }).waitFor();

        await favoritesPanel(page).getByRole('link', { name: 'Company KPIs' }).click();
        await page.getByRole('heading', { level: 3, name: 'Common', exact: true }).waitFor();
        await eventually(async () => (await page.evaluate(() => document.activeElement?.textContent)) === 'Common',
            'the folder heading takes the focus');
        // Back goes to where the page was before.
        await page.goBack();
        await page.getByRole('heading', { level: 3, name: 'Sales Overview', exact: true }).waitFor();
        assertNoPageErrors(page);
    });
});
