// Queries the device and makes a sale, with the library. ../README.md says how to run it and what exit status 3 asks for.
'use strict';

const { randomInt } = require('node:crypto');
const fs = require('node:fs');
const koffi = require('koffi');

const NOT_SOLD = 1, OUTCOME_UNKNOWN = 3;
const EEEEE = 1, DOCUMENT = 6, KEY = 8; // fields of an answer
const OK = 0, BAD_REQUEST = 8;
const PENDING = 'pendente.txt';

// koffi sends texts as UTF-8. Results are pointers, because it would decode a text as UTF-8 even if it is not. A call
// blocks the event loop: a program with a user interface makes it in a worker thread, one call at a time.
const library = koffi.load('libfiscora.so.1');
const fiscora = {
    ConsultarSAT: library.func('const void *ConsultarSAT(int session)'),
    EnviarDadosVenda: library.func('const void *EnviarDadosVenda(int session, const char *code, const char *sale)'),
    CodigoErro: library.func('int CodigoErro()'),
};
const strlen = koffi.load('libc.so.6').func('size_t strlen(const void *text)');

/** The fields of the answer, copied; none if it is not this call's, or only says that the device is busy. */
function call(operation, session, ...rest) {
    const result = fiscora[operation](session, ...rest);
    const answer = Buffer.from(koffi.decode(result, 'uint8_t', strlen(result))).toString(); // some devices: Latin-1
    const digits = String(session).padStart(6, '0');
    console.log(`${operation}, sessão ${digits}: status ${fiscora.CodigoErro()}, ${answer.slice(0, 40)}`);
    const own = fiscora.CodigoErro() === OK && new RegExp(`^${digits}\\|(?!..09[89])[0-9]{5}\\|`).test(answer);
    return own ? answer.split('|') : [];
}

function stop(exitStatus, why) {
    console.log(why);
    process.exit(exitStatus);
}

if (fs.existsSync(PENDING)) stop(OUTCOME_UNKNOWN, 'Resolva primeiro a venda de pendente.txt: veja README.md');
const code = process.env.CODIGO_DE_ATIVACAO;
const sale = fs.readFileSync('venda.xml', 'utf8');
if (!code) stop(NOT_SOLD, 'Falta CODIGO_DE_ATIVACAO');
if (call('ConsultarSAT', randomInt(1_000_000))[EEEEE] !== '08000') stop(NOT_SOLD, 'O equipamento não está em operação');

const session = randomInt(1_000_000);
fs.writeFileSync(PENDING, `${session}\n`, { flag: 'wx' });
const fields = call('EnviarDadosVenda', session, code, sale);
if (fields.length === 0 && fiscora.CodigoErro() !== BAD_REQUEST)
    stop(OUTCOME_UNKNOWN, 'Não venda de novo: não se sabe se esta foi feita. Veja README.md');
const sold = fields[EEEEE] === '06000';
if (sold) {
    // The key becomes a file name.
    if (!/^CFe[0-9]{44}$/.test(fields[KEY])) stop(OUTCOME_UNKNOWN, 'A chave de acesso é inválida');
    fs.writeFileSync(`${fields[KEY]}.xml`, Buffer.from(fields[DOCUMENT], 'base64'));
    console.log(`Gravado: ${fields[KEY]}.xml`);
}
fs.unlinkSync(PENDING);
process.exit(sold ? 0 : NOT_SOLD);
