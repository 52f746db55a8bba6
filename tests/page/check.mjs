// node tests/page/check.mjs BUILD
// The page of fiscorad in a real browser: Debian's Chromium, at the width of a telephone and of a desk, with the programs
// of the build tree BUILD and a simulated device that restarts in the middle of a sale. Leaves pictures in build/page.
import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import { mkdirSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { createServer } from 'node:net';
import { tmpdir } from 'node:os';
import { join, resolve } from 'node:path';
import { setTimeout as pause } from 'node:timers/promises';
import { chromium } from 'playwright-core';

const root = new URL('../..', import.meta.url).pathname;
const tools = join(resolve(process.argv[2] ?? join(root, 'build/development')), 'tools');
const pictures = join(root, 'build/page');
const folder = mkdtempSync(join(tmpdir(), 'fiscorad-page-'));
const journal = join(folder, 'journal.db');
const sale = readFileSync(join(root, 'examples/venda.xml'));
const axe = readFileSync(new URL('node_modules/axe-core/axe.min.js', import.meta.url), 'utf8');
const HOSTILE = '<img src=x onerror="document.title=1">';
const RESTART_SECONDS = 8;
/** Three documents and the question at a click come first: a document takes two exchanges, of which the first only reads. */
const RESTART_AT = 2 * 3 + 1 + 2;

mkdirSync(pictures, { recursive: true });
writeFileSync(join(folder, 'code'), '12345678\n', { mode: 0o600 });

const freePort = () => new Promise((found) => {
    const server = createServer().listen(0, '127.0.0.1', () => {
        const { port } = server.address();
        server.close(() => found(port));
    });
});
const port = await freePort();
const site = `http://127.0.0.1:${port}`;
const token = (...words) => execFileSync(join(tools, 'fiscorad'), ['--journal', journal, 'token', ...words], { encoding: 'utf8', stdio: ['ignore', 'pipe', 'ignore'] });

/** Sells as a till with the token does; answers with the status once there is an outcome, or after `wait` seconds. */
const sell = (secret, key, body = sale, wait = 30) => fetch(`${site}/v1/vendas`, {
    method: 'POST', body,
    headers: { Authorization: `Bearer ${secret}`, 'Idempotency-Key': key, 'Content-Type': 'application/xml', Prefer: `wait=${wait}` },
}).then((response) => response.status);

async function step(what, work) {
    const begin = Date.now();
    await work();
    console.log(`${((Date.now() - begin) / 1000).toFixed(1).padStart(5)} s  ${what}`);
}

async function until(what, holds) {
    for (const end = Date.now() + 20000; Date.now() < end; await pause(100)) if (await holds()) return;
    throw new Error(`in 20 s not: ${what}`);
}

// A container's root has no sandbox to give.
const browser = await chromium.launch({ executablePath: '/usr/bin/chromium', args: ['--lang=pt-BR', ...(process.getuid() === 0 ? ['--no-sandbox'] : [])] });

const service = spawn(join(tools, 'fiscora'), ['sim', '--fault', `restart=${RESTART_SECONDS}@${RESTART_AT}`, '--',
    join(tools, 'fiscorad'), '--listen', `127.0.0.1:${port}`, '--journal', journal, '--activation-code-file', join(folder, 'code')],
{ cwd: folder, stdio: ['ignore', 'ignore', 'pipe'], env: { ...process.env, ASAN_OPTIONS: 'verify_asan_link_order=0' } });
let log = '';
service.stderr.on('data', (text) => { log += text; });
const ended = new Promise((done) => { service.on('exit', done); });

const elsewhere = [];  // requests that leave the host
const complaints = [];
const ADDRESSES = new Set([site, 'blob:', 'data:']);

async function open(width, colorScheme) {
    const context = await browser.newContext({ viewport: { width, height: 800 }, colorScheme, locale: 'pt-BR', timezoneId: 'America/Sao_Paulo' });
    const page = await context.newPage();
    page.on('request', (request) => { if (!ADDRESSES.has(new URL(request.url()).origin)) elsewhere.push(request.url()); });
    page.on('pageerror', (error) => complaints.push(`${error}`));
    page.on('console', (message) => { if (message.type() === 'error' && !/status of (401|403)/.test(message.text())) complaints.push(message.text()); });
    await page.goto(site);
    return page;
}

/** Nothing that axe finds, nothing wider than the window, and no text of others that has become markup. */
async function look(page, name) {
    await page.evaluate(() => Promise.all(document.getAnimations().map((animation) => animation.finished.catch(() => {}))));
    await page.evaluate(axe);
    const { violations } = await page.evaluate(() => globalThis.axe.run(document, { resultTypes: ['violations'] }));
    assert.deepEqual(violations.map((one) => `${one.id}: ${one.nodes.map((node) => node.html).join(' ')}`), [], name);
    const [wide, window, images, title] = await page.evaluate(() => [document.documentElement.scrollWidth, innerWidth,
        document.querySelectorAll('img:not([src="/fiscorad.svg"])').length, document.title]);
    assert.ok(wide <= window, `${name}: ${wide} px in a window of ${window}`);
    assert.equal(images, 0, `${name}: a text has become an image`);
    assert.equal(title, 'fiscorad');
    await page.screenshot({ path: join(pictures, `${name}.png`), fullPage: true });
}

const text = (page, id) => page.locator(`#${id}`).innerText();
const row = (page, key) => page.locator(`#rows tr[data-key="${key}"]`);

try {
    let admin = '', till = '', desk, telephone, signedBytes;

    await step('without tokens, this machine is served, and texts of a till stay texts', async () => {
        await until('the service listens', () => fetch(`${site}/saude`).then((response) => response.ok, () => false));
        desk = await open(1280, 'light');
        const form = new URLSearchParams({ numero_caixa: HOSTILE, dados_venda: sale.toString() });
        await fetch(`${site}/hub/v1/enviardadosvenda`, { method: 'POST', body: form, headers: { 'Idempotency-Key': 'hostil' } });
        await row(desk, 'hostil').getByText(HOSTILE).waitFor();
        await row(desk, 'hostil').getByRole('button').click();
        await desk.locator('#details').getByText(HOSTILE).waitFor();
        await look(desk, 'hostile-till');
    });

    await step('with tokens, nothing shows before one signs in, nor with a wrong or a till\'s token', async () => {
        admin = token('add', 'gerente', '--admin').trim().split(/\s+/).pop();
        till = token('add', 'caixa-1').trim().split(/\s+/).pop();
        desk = await open(1280, 'light');
        for (const wrong of ['x', till]) {
            await desk.getByLabel('Token de administração').fill(wrong);
            await desk.getByRole('button', { name: 'Entrar' }).click();
            await until('an error shows', async () => (await text(desk, 'sign-in-error')) !== '');
            assert.equal(await desk.locator('#shop').isVisible(), false);
        }
        await look(desk, 'sign-in-1280');
        telephone = await open(360, 'dark');
        await look(telephone, 'sign-in-360');
        for (const page of [desk, telephone]) {
            await page.getByLabel('Token de administração').fill(admin);
            await page.getByRole('button', { name: 'Entrar' }).click();
            await page.locator('#shop').waitFor();
        }
        assert.equal(await text(desk, 'who-name'), 'gerente');
    });

    await step('a sale shows as it comes, and a refused one with what the device says', async () => {
        const before = Number(await text(desk, 'sales'));
        assert.equal(await sell(till, 'loja-1'), 201);
        await row(desk, 'loja-1').getByText('Emitida').waitFor();
        await row(desk, 'loja-1').getByText('R$ 43,73').waitFor();
        await row(telephone, 'loja-1').getByText('caixa-1').waitFor();
        await until('today\'s sales count it', async () => Number(await text(desk, 'sales')) === before + 1);
        assert.match(await text(desk, 'total'), /^R\$\s87,46$/);
        assert.equal(await sell(till, 'loja-2', '<CFe>'), 422);
        await row(desk, 'loja-2').getByText('Recusada').waitFor();
        assert.match(await row(desk, 'loja-2').locator('.reason').innerText(), /^06\d{3} .{5}/);
        await desk.locator('#chart circle.ok').first().waitFor();
        await until('today\'s refusals count it', async () => (await text(desk, 'refused')) === '1');
    });

    await step('what the device says stays a text', async () => {
        const page = await desk.context().newPage();
        const spoil = async (route) => {
            const response = await route.fetch();
            await route.fulfill({ response, body: (await response.text()).replaceAll(/"mensagem":"[^"]*"/g, `"mensagem":${JSON.stringify(HOSTILE)}`) });
        };
        await page.route('**/v1/vendas?*', spoil);
        await page.route('**/tentativas', spoil);
        await page.goto(site);
        await row(page, 'loja-2').getByText(HOSTILE).waitFor();
        await row(page, 'loja-2').getByRole('button').click();
        await page.locator('#details').getByText(HOSTILE).waitFor();
        await look(page, 'hostile-device');
        await page.close();
    });

    await step('search by key, access key, till, day and state', async () => {
        const accessKey = await row(desk, 'loja-1').locator('.access-key').innerText();
        const find = async (fill, expected) => {
            await desk.getByRole('button', { name: 'Limpar' }).click();
            for (const [label, value] of Object.entries(fill)) await desk.locator(`#search [name=${label}]`).fill(value);
            await desk.getByRole('button', { name: 'Buscar' }).click();
            await until(`${JSON.stringify(fill)} finds ${expected}`, async () => `${await desk.locator('#rows tr').evaluateAll((rows) => rows.map((one) => one.dataset.key))}` === `${expected}`);
        };
        await find({ busca: 'loja-1' }, ['loja-1']);
        await find({ busca: accessKey }, ['loja-1']);
        await find({ busca: accessKey.slice(3) }, ['loja-1']);
        await find({ caixa: 'caixa-1' }, ['loja-2', 'loja-1']);
        await find({ dia: '2001-01-01' }, []);
        await desk.getByText('Nenhum documento.').waitFor();
        await desk.getByRole('button', { name: 'Limpar' }).click();
        await row(desk, 'hostil').waitFor();
    });

    await step('the signed document, byte for byte', async () => {
        signedBytes = Buffer.from(await (await fetch(`${site}/v1/vendas/loja-1/documento`, { headers: { Authorization: `Bearer ${till}` } })).arrayBuffer());
        assert.ok(signedBytes.includes('<Signature'));
        const [download] = await Promise.all([desk.waitForEvent('download'), row(desk, 'loja-1').getByRole('link', { name: 'XML' }).click()]);
        assert.match(download.suggestedFilename(), /^CFe\d{44}\.xml$/);
        assert.deepEqual(readFileSync(await download.path()), signedBytes);
    });

    await step('the device is asked at a click, after a confirmation', async () => {
        await desk.getByRole('button', { name: 'Consultar estado' }).click();
        await look(desk, 'ask');
        await desk.getByRole('button', { name: 'Consultar', exact: true }).click();
        await desk.locator('#details').getByText('900004019', { exact: true }).waitFor();
        await desk.getByRole('button', { name: 'Fechar' }).click();
    });

    await step('a device that fails shows, with advice, and so does its return', async () => {
        let key = 0;
        await until('the device has restarted', async () => {
            await sell(till, `loja-falha-${++key}`, sale, 2);
            return ['Ausente', 'Resolvendo uma venda'].includes(await text(desk, 'device-state'));
        });
        await desk.locator('#device.bad').getByText('Ausente').waitFor();
        await desk.getByRole('heading', { name: 'O que fazer' }).waitFor();
        assert.ok(await desk.locator('#advice li').count() > 0);
        await look(desk, 'absent-1280');
        await look(telephone, 'absent-360');
        await desk.locator('#device.busy').getByText('Resolvendo uma venda').waitFor();
        await desk.getByText('Incerta', { exact: true }).and(desk.locator('.pill')).waitFor();
        await look(desk, 'resolving');
    });

    await step('a queued sale is withdrawn, after a confirmation', async () => {
        await sell(till, 'loja-desiste', sale, 0);
        await row(desk, 'loja-desiste').getByText('Na fila').waitFor();
        await row(desk, 'loja-desiste').getByRole('button').click();
        await desk.getByRole('button', { name: 'Retirar da fila' }).click();
        await desk.getByRole('button', { name: 'Cancelar' }).click();
        await desk.getByRole('button', { name: 'Retirar da fila' }).click();
        await desk.getByRole('button', { name: 'Retirar', exact: true }).click();
        await desk.locator('#details .pill').getByText('Retirada').first().waitFor();
        await desk.getByRole('button', { name: 'Fechar' }).click();
    });

    await step('a decision shows the evidence, wants a reason, and stays in the history with the person', async () => {
        const uncertain = desk.locator('#rows tr', { has: desk.getByText('Incerta', { exact: true }) });
        const key = await uncertain.getAttribute('data-key');
        await uncertain.getByRole('button').click();
        await look(desk, 'details-1280');
        await desk.getByRole('button', { name: 'Abandonar' }).click();
        assert.ok(await desk.locator('#confirmation-evidence li').count() > 2);
        await look(desk, 'decision-1280');
        await desk.locator('#confirmation-go').click();
        assert.ok(await desk.locator('#confirmation').isVisible(), 'went on without a reason');
        await desk.getByLabel('Motivo').fill(HOSTILE);
        await desk.locator('#confirmation-go').click();
        await desk.locator('#confirmation').waitFor({ state: 'hidden' });
        await desk.locator('#timeline').getByText(`gerente: ${HOSTILE}`).waitFor();
        await look(desk, 'decided');
        const now = await (await fetch(`${site}/v1/vendas/${key}`, { headers: { Authorization: `Bearer ${admin}` } })).json();
        assert.equal(now.estado, 'abandonada');
        await desk.getByRole('button', { name: 'Fechar' }).click();
    });

    await step('a device that shows a strange document sells again once a person confirms it', async () => {
        await desk.locator('#device.bad').getByText('Divergente').waitFor();
        await look(telephone, 'divergent-360');
        await desk.getByRole('button', { name: 'Confirmar e voltar a vender' }).click();
        await desk.getByLabel('Motivo').fill('conferido no equipamento');
        await desk.getByRole('button', { name: 'Confirmar', exact: true }).click();
        await desk.locator('#device.good').getByText('Respondendo').waitFor();
        assert.equal(await sell(till, 'loja-de-novo'), 201);
        await row(telephone, 'loja-de-novo').getByText('Emitida').waitFor();
        await look(desk, 'page-1280-light');
        await look(telephone, 'page-360-dark');
        for (const [page, colorScheme, name] of [[desk, 'dark', 'page-1280-dark'], [telephone, 'light', 'page-360-light']]) {
            await page.emulateMedia({ colorScheme });
            await look(page, name);
        }
    });

    await step('after signing out nothing is visible, nor answered', async () => {
        await desk.getByRole('button', { name: 'Sair' }).click();
        await desk.locator('#sign-in').waitFor();
        assert.equal(await desk.locator('#shop').isVisible(), false);
        assert.doesNotMatch(await desk.evaluate(() => document.body.textContent), /loja-|900004019|gerente/);
        const statuses = await desk.evaluate(() => Promise.all(['/v1/vendas', '/v1/resumo', '/v1/eventos', '/v1/vendas/loja-1/documento'].map((path) => fetch(path).then((response) => response.status))));
        assert.deepEqual(statuses, [401, 401, 401, 401]);
        await desk.reload();
        await desk.locator('#sign-in').waitFor();
        await look(desk, 'signed-out');
    });

    assert.deepEqual(elsewhere, [], 'requests that leave the host');
    assert.deepEqual(complaints, [], 'complaints of the browser');
    console.log(`the page holds; its pictures are in ${pictures}`);
} catch (error) {
    console.error(log);
    throw error;
} finally {
    await browser.close();
    service.kill();
    await ended;
    rmSync(folder, { recursive: true });
}
