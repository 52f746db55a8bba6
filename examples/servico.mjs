// Makes a sale through fiscorad: the same key goes out until the outcome is known, and the next run goes on with it.
import { randomUUID } from 'node:crypto';
import { fstatSync, fsyncSync, openSync, readFileSync, unlinkSync, writeFileSync, writeSync } from 'node:fs';
import { setTimeout as pause } from 'node:timers/promises';

const SERVICE = process.argv[2]; // its address
const KEY = 'chave.txt'; // of the sale in hand

/** Status and body of the answer; asks again as long as there is none or it is no outcome. */
async function ask(path, options) {
    for (;;) {
        let reason;
        try {
            const answer = await fetch(SERVICE + path, { ...options, signal: AbortSignal.timeout(90_000) });
            const body = Buffer.from(await answer.arrayBuffer());
            if (answer.status !== 202 && answer.status < 500) return { ok: answer.ok, body };
            reason = body;
        } catch (error) {
            reason = error.cause ?? error;
        }
        console.log(`Ainda sem desfecho: ${reason}`);
        await pause(2000);
    }
}

const file = openSync(KEY, 'a');
if (fstatSync(file).size === 0) writeSync(file, `caixa1-${randomUUID()}`);
fsyncSync(file); // before the first attempt
const headers = { 'Idempotency-Key': readFileSync(KEY, 'utf8'), 'Content-Type': 'application/xml' };
const { ok, body } = await ask('/v1/vendas', { method: 'POST', headers, body: readFileSync('venda.xml') });
const outcome = JSON.parse(body);
console.log(outcome.chaveConsulta ?? outcome.detail);
if (outcome.documento) writeFileSync(`${outcome.chaveConsulta}.xml`, (await ask(outcome.documento)).body);
if (outcome.estado) unlinkSync(KEY); // final: the next sale needs a key of its own
process.exit(ok ? 0 : 1);
