// The page's tree edits, without a browser: what PUT /api/v1/favorites gets
// for a rename, move or reorder, and how an import file is read.

import assert from 'node:assert/strict';
import { describe, test } from 'node:test';

import {
    TreeEditError, categoryList, countItems, describeCounts, fingerprint, keepObjects, lastName, locate,
    moveBy, moveTo, occurrences, parentPath, parseReplacement, renameCategory, splitPath, toReplacement,
} from '../public/js/tree.mjs';

const object = (parent, path) => ({
    type: 'catalogObject', name: lastName(path), favoritesPath: `${parent}/${lastName(path)}`, catalogPath: path,
});
const category = (parent, name, children) => ({
    type: 'category', name, favoritesPath: `${parent}/${name}`, children: children(`${parent}/${name}`),
});

// alice's demo favorites, as GET /api/v1/favorites writes them.
const alice = () => [
    category('/root', 'Sales', (p) => [
        object(p, '/shared/Sales/Reports/Revenue by Region'),
        object(p, '/shared/Sales/Dashboards/Sales Overview/Summary'),
    ]),
    object('/root', '/shared/Common/Company KPIs'),
];

describe('paths', () => {
    test('a path splits into its components, keeping escaped slashes', () => {
        assert.deepEqual(splitPath('/shared/Sales/Reports'), ['shared', 'Sales', 'Reports']);
        assert.deepEqual(splitPath('/root/Q1\\/Q2/x'), ['root', 'Q1\\/Q2', 'x']);
        assert.deepEqual(splitPath('/'), []);
    });

    test('the parent folder and the name of a catalog path', () => {
        assert.equal(parentPath('/shared/Sales/Reports/Pipeline'), '/shared/Sales/Reports');
        assert.equal(parentPath('/shared'), '/');
        assert.equal(lastName('/shared/Sales/Dashboards/Sales Overview/Summary'), 'Summary');
        assert.equal(lastName('/root/Q1\\/Q2'), 'Q1/Q2');
    });
});

describe('looking things up', () => {
    test('the places an object sits in, and the counts of a tree', () => {
        const items = alice();
        items.push(object('/root', '/shared/Sales/Reports/Revenue by Region'));
        const places = occurrences(items, '/shared/Sales/Reports/Revenue by Region');
        assert.deepEqual(places.map((p) => p.parent?.name ?? null), ['Sales', null]);
        assert.deepEqual(countItems(items), { categories: 1, objects: 4 });
        assert.equal(describeCounts({ categories: 1, objects: 2 }), '1 category and 2 favorites');
        assert.equal(describeCounts({ categories: 0, objects: 0 }), 'nothing');
    });

    test('categories are listed in tree order with their full names', () => {
        const items = alice();
        items[0].children.push(category('/root/Sales', 'Q1', () => []));
        assert.deepEqual(categoryList(items).map((c) => [c.label, c.depth, c.favoritesPath]),
            [['Sales', 0, '/root/Sales'], ['Sales / Q1', 1, '/root/Sales/Q1']]);
    });

    test('a fingerprint changes with the order and the names', () => {
        const items = alice();
        assert.equal(fingerprint(items), fingerprint(alice()));
        assert.notEqual(fingerprint(moveBy(items, '/root/Company KPIs', -1).items), fingerprint(items));
        assert.notEqual(fingerprint(renameCategory(items, '/root/Sales', 'Deals').items), fingerprint(items));
    });
});

describe('edits', () => {
    test('moving up and down swaps with the neighbour and leaves the input alone', () => {
        const items = alice();
        const { items: moved, indexPath } = moveBy(items, '/root/Company KPIs', -1);
        assert.deepEqual(moved.map((i) => i.name), ['Company KPIs', 'Sales']);
        assert.deepEqual(indexPath, [0]);
        assert.deepEqual(items.map((i) => i.name), ['Sales', 'Company KPIs']);

        const inner = moveBy(items, '/root/Sales/Revenue by Region', 1);
        assert.deepEqual(inner.items[0].children.map((i) => i.name), ['Summary', 'Revenue by Region']);
        assert.deepEqual(inner.indexPath, [0, 1]);
    });

    test('the first cannot move up, the last cannot move down', () => {
        assert.throws(() => moveBy(alice(), '/root/Sales', -1), TreeEditError);
        assert.throws(() => moveBy(alice(), '/root/Company KPIs', 1), /already last/);
    });

    test('moving into a category appends, at an index inserts', () => {
        const into = moveTo(alice(), '/root/Company KPIs', '/root/Sales');
        assert.deepEqual(into.items.map((i) => i.name), ['Sales']);
        assert.deepEqual(into.items[0].children.map((i) => i.name), ['Revenue by Region', 'Summary', 'Company KPIs']);
        assert.deepEqual(into.indexPath, [0, 2]);

        const before = moveTo(alice(), '/root/Company KPIs', '/root/Sales', 0);
        assert.deepEqual(before.items[0].children.map((i) => i.name), ['Company KPIs', 'Revenue by Region', 'Summary']);

        const out = moveTo(alice(), '/root/Sales/Summary', '/root');
        assert.deepEqual(out.items.map((i) => i.name), ['Sales', 'Company KPIs', 'Summary']);
        assert.deepEqual(out.indexPath, [2]);
    });

    test('moving within its own list counts the index as it was before the move', () => {
        const items = alice();
        items.push(object('/root', '/shared/Common/Holiday Calendar'));
        // Sales, Company KPIs, Holiday Calendar: Sales dropped after Holiday Calendar.
        const moved = moveTo(items, '/root/Sales', '/root', 3);
        assert.deepEqual(moved.items.map((i) => i.name), ['Company KPIs', 'Holiday Calendar', 'Sales']);
        assert.deepEqual(moved.indexPath, [2]);
    });

    test('a category cannot go into itself, nor a list hold one object twice', () => {
        const items = alice();
        items[0].children.push(category('/root/Sales', 'Q1', () => []));
        assert.throws(() => moveTo(items, '/root/Sales', '/root/Sales/Q1'), /cannot be moved into itself/);
        items.push(object('/root', '/shared/Sales/Reports/Revenue by Region'));
        assert.throws(() => moveTo(items, '/root/Revenue by Region', '/root/Sales'), /already holds/);
    });

    test('a rename keeps the content and refuses an empty name or a sibling\'s name', () => {
        const items = alice();
        items.push(category('/root', 'Weekly', () => []));
        const renamed = renameCategory(items, '/root/Sales', '  Deals ');
        assert.equal(renamed.items[0].name, 'Deals');
        assert.equal(renamed.items[0].children.length, 2);
        assert.throws(() => renameCategory(items, '/root/Sales', ' '), /needs a name/);
        assert.throws(() => renameCategory(items, '/root/Sales', 'Weekly'), /already has a category named/);
    });

    test('the replacement text names categories and gives objects by path only', () => {
        assert.deepEqual(toReplacement(alice()), [
            { type: '1', name: 'Sales', children: [
                { type: '0', path: '/shared/Sales/Reports/Revenue by Region' },
                { type: '0', path: '/shared/Sales/Dashboards/Sales Overview/Summary' },
            ] },
            { type: '0', path: '/shared/Common/Company KPIs' },
        ]);
    });

    test('a filter keeps categories and the admitted objects', () => {
        const kept = keepObjects(alice(), new Set(['/root/Sales/Summary']));
        assert.deepEqual(kept.map((i) => i.name), ['Sales']);
        assert.deepEqual(kept[0].children.map((i) => i.name), ['Summary']);
        assert.ok(locate(alice(), '/root/Sales/Summary'));
    });
});

describe('import files', () => {
    test('an export is read back with its counts', () => {
        const text = JSON.stringify(toReplacement(alice()));
        const parsed = parseReplacement(text);
        assert.deepEqual(parsed.counts, { categories: 1, objects: 3 });
        assert.deepEqual(parsed.replacement, toReplacement(alice()));
        assert.equal(parsed.items[0].children[1].name, 'Summary');
    });

    test('a category may leave out its children', () => {
        const parsed = parseReplacement('[{"type":"1","name":"Empty"}]');
        assert.deepEqual(parsed.replacement, [{ type: '1', name: 'Empty', children: [] }]);
    });

    test('what is not a favorites export is refused in words', () => {
        assert.throws(() => parseReplacement('<favorites/>'), /not JSON/);
        assert.throws(() => parseReplacement('{"type":"1"}'), /JSON array/);
        assert.throws(() => parseReplacement('[{"type":"1"}]'), /has no name/);
        assert.throws(() => parseReplacement('[{"type":"0","path":"relative"}]'), /no catalog path/);
        assert.throws(() => parseReplacement('[{"type":"7"}]'), /neither a category nor a catalog object/);
    });
});
