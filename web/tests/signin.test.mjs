// Signing in and out of the favorites page.

import assert from 'node:assert/strict';
import { after, before, describe, test } from 'node:test';

import {
    TEST_TIMEOUT, assertAccessible, assertNoPageErrors, eventually, launchBrowser, openPage, screenshots, signIn,
    startServer,
} from './helpers.mjs';

describe('signing in', { timeout: TEST_TIMEOUT * 4 }, () => {
    let browser;
    let server;

    before(async () => {
        server = await startServer();
        browser = await launchBrowser();
    }, { timeout: TEST_TIMEOUT });

    after(async () => {
        await browser?.close();
        await server?.stop();
    }, { timeout: TEST_TIMEOUT });

    test('a wrong password is refused next to the form; the right one signs in, and signing out ends the session',
        { timeout: TEST_TIMEOUT }, async () => {
            const { context, page } = await openPage(browser);
            try {
                await page.goto(server.url);
                const userName = page.getByLabel('User name');
                await userName.waitFor();
                assert.equal(await page.getByRole('heading', { level: 1 }).textContent(), 'Sign in');
                await screenshots(page, 'sign-in');
                await assertAccessible(page, 'the sign-in page');

                await userName.fill('alice');
                await page.getByLabel('Password').fill('not her password');
                await page.getByRole('button', { name: 'Sign in' }).click();
                const error = page.getByRole('form', { name: 'Sign in' }).getByRole('alert');
                await error.filter({ hasText: /\S/ }).waitFor();
                const message = (await error.textContent()).trim();
                assert.doesNotMatch(message, /^\d{3}\b|\b40[13]\b/, 'the error shows a status code instead of words');
                assert.equal(await page.getByLabel('Password').getAttribute('aria-invalid'), 'true');
                assert.equal(await page.getByRole('button', { name: 'Sign out' }).count(), 0);

                await page.getByLabel('Password').fill('demo');
                await page.getByRole('button', { name: 'Sign in' }).click();
                await page.getByText('Signed in as alice').waitFor();
                await page.getByRole('region', { name: 'My favorites' }).getByRole('button', { name: 'Rename Sales' }).waitFor();

                // The session outlives a reload: the page asks the server whether one exists.
                await page.reload();
                await page.getByText('Signed in as alice').waitFor();

                await page.getByRole('button', { name: 'Sign out' }).click();
                await page.getByLabel('User name').waitFor();
                await page.getByText('You have signed out.').waitFor();
                await page.reload();
                await page.getByLabel('User name').waitFor();
                assert.equal(await page.getByText('Signed in as alice').count(), 0);
                assertNoPageErrors(page);
            } finally {
                await context.close();
            }
        });

    test('the page sends the anti-forgery token with every change, and signs in again after a reload',
        { timeout: TEST_TIMEOUT }, async () => {
            const { context, page } = await openPage(browser);
            try {
                const changes = [];
                page.on('request', (request) => {
                    if (request.url().includes('/api/v1/') && request.method() !== 'GET') {
                        changes.push({ method: request.method(), url: request.url(), token: request.headers()['x-csrf-token'] });
                    }
                });
                let token = '';
                page.on('response', async (response) => {
                    if (response.url().endsWith('/api/v1/session') && response.request().method() === 'POST' && response.ok()) {
                        token = (await response.json()).csrfToken;
                    }
                });
                await signIn(page, server, 'dave');
                await page.getByRole('button', { name: 'New category' }).click();
                await page.getByRole('dialog', { name: 'New category' }).getByLabel('Name').fill('Token check');
                await page.getByRole('button', { name: 'Make category' }).click();
                await page.getByRole('button', { name: 'Rename Token check' }).waitFor();
                await page.getByRole('button', { name: 'Sign out' }).click();
                await page.getByLabel('User name').waitFor();

                assert.ok(token, 'the sign-in answer carried a token');
                const needing = changes.filter((c) => !(c.method === 'POST' && c.url.endsWith('/api/v1/session')));
                assert.deepEqual(needing.map((c) => c.method), ['POST', 'DELETE']);
                for (const change of needing) assert.equal(change.token, token, `${change.method} ${change.url}`);
            } finally {
                await context.close();
            }
        });
});

describe('signing in too often', { timeout: TEST_TIMEOUT * 2 }, () => {
    let browser;
    let server;

    before(async () => {
        server = await startServer({ args: ['--signin-failures', '2', '--signin-window-seconds', '120'] });
        browser = await launchBrowser();
    }, { timeout: TEST_TIMEOUT });

    after(async () => {
        await browser?.close();
        await server?.stop();
    }, { timeout: TEST_TIMEOUT });

    test('after too many failed sign-ins the page says how long to wait', { timeout: TEST_TIMEOUT }, async () => {
        const { context, page } = await openPage(browser, { viewport: { width: 390, height: 844 } });
        try {
            await page.goto(server.url);
            const error = page.getByRole('form', { name: 'Sign in' }).getByRole('alert');
            const signInButton = page.getByRole('button', { name: 'Sign in' });
            for (let attempt = 0; attempt < 3; ++attempt) {
                await page.getByLabel('User name').fill('carol');
                await page.getByLabel('Password').fill(`wrong ${attempt}`);
                await page.getByRole('button', { name: 'Sign in' }).click();
                await error.filter({ hasText: /\S/ }).waitFor();
                if (/Too many/.test(await error.textContent())) break;
                await eventually(() => signInButton.isEnabled(), 'the sign-in button stays disabled');
            }
            assert.match((await error.textContent()).trim(),
                /^Too many failed sign-ins; try again in \d+ seconds?\.$/);

            // The right password does not get through meanwhile either.
            await page.getByLabel('Password').fill('demo');
            await page.getByRole('button', { name: 'Sign in' }).click();
            await eventually(() => signInButton.isEnabled(), 'the sign-in button stays disabled');
            assert.match(await error.textContent(), /Too many failed sign-ins/);
            assert.equal(await page.getByText('Signed in as carol').count(), 0);
        } finally {
            await context.close();
        }
    });
});
