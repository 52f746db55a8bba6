// A day at the till in Node: query, sale, cancellation, the device's log. ../README.md says how to run it.
// Exit status: 0 all done, 1 stopped, 2 not started, 3 a document is pending.
'use strict';

const fs = require('node:fs');
const { isUtf8 } = require('node:buffer');
const koffi = require('koffi');

const STOPPED = 1, NOT_STARTED = 2, DOCUMENT_PENDING = 3;
const ATTEMPTS = 2, QUERIES = 5, PAUSE_MS = 2000;
const EEEEE = 1, LOG = 5, DOCUMENT = 6, KEY = 8; // fields of an answer
const PENDING = 'pendente.txt';

const OK = 0, BAD_REQUEST = 8;
const STATUS_TEXTS = {
    [OK]: 'Resposta ilegível ou de outra sessão.',
    1: 'Equipamento não encontrado ou resposta danificada. Verifique o cabo.',
    2: 'A comunicação caiu. Verifique o cabo e a energia do equipamento.',
    4: 'O equipamento respondeu a outro pedido. Desligue-o e ligue-o de novo.',
    [BAD_REQUEST]: 'Dados inválidos ou grandes demais: nada foi enviado. Corrija-os.',
    32768: 'O equipamento não respondeu a tempo. Ele pode estar ocupado.',
};

// koffi sends texts as UTF-8. Results are pointers, because it would decode a text as UTF-8 even if it is not. A call
// blocks the event loop: a program with a user interface makes it in a worker thread, one call at a time.
const library = koffi.load('libfiscora.so.1');
const fiscora = Object.fromEntries([
    'const void *ConsultarSAT(int session)',
    'const void *EnviarDadosVenda(int session, const char *code, const char *sale)',
    'const void *CancelarUltimaVenda(int session, const char *code, const char *key, const char *cancellation)',
    'const void *ConsultarNumeroSessao(int session, const char *code, int lost)',
    'const void *ExtrairLogs(int session, const char *code)',
    'int CodigoErro()',
    'const char *getVersion()',
].map((prototype) => [prototype.match(/(\w+)\(/)[1], library.func(prototype)]));
const libc = koffi.load('libc.so.6');
const strlen = libc.func('size_t strlen(const void *text)');
const sync = libc.func('void sync()');

/** Exits with exitStatus, or with DOCUMENT_PENDING if pendente.txt exists. */
function stop(exitStatus, why) {
    console.log(why);
    if (!fs.existsSync(PENDING)) process.exit(exitStatus);
    console.log('Antes de enviar outro documento, consulte a sessão e apague pendente.txt (README.md):',
        fs.readFileSync(PENDING, 'utf8'));
    process.exit(DOCUMENT_PENDING);
}

/** Writes the whole file or leaves the old one as it was. */
function write(path, content) {
    fs.writeFileSync('gravando.tmp', content);
    fs.renameSync('gravando.tmp', path);
}

const sixDigits = (session) => String(session).padStart(6, '0');

/** A number that no call has used, not even in an earlier run: a device books one document per number. */
function nextSession() {
    let last = fs.existsSync('sessao.txt') ? parseInt(fs.readFileSync('sessao.txt', 'ascii'), 10) : NaN;
    if (Number.isNaN(last)) last = Math.floor(Date.now() / 1000);
    const session = (last + 1) % 1_000_000;
    write('sessao.txt', sixDigits(session) + '\n');
    return session;
}

/** A copy, because the next call overwrites the memory. Most devices answer in UTF-8, some in Latin-1. */
function text(pointer) {
    const bytes = Buffer.from(koffi.decode(pointer, 'uint8_t', strlen(pointer)));
    return bytes.toString(isUtf8(bytes) ? 'utf8' : 'latin1');
}

/**
 * Makes and reports a call. Returns the answer's fields, missing ones empty, if it is complete, in time, and has this
 * call's number in field 0, or the number asked about, which some devices put there. Otherwise null.
 */
function call(operation, session, ...rest) {
    const asked = operation === 'ConsultarNumeroSessao' ? rest.at(-1) : session;
    const answer = text(fiscora[operation](session, ...rest));
    const status = fiscora.CodigoErro();
    const report = (outcome) => console.log(`${operation}, sessão ${sixDigits(session)}: ${outcome}`);
    if (status !== OK || !new RegExp(`^(${sixDigits(session)}|${sixDigits(asked)})\\|[0-9]{5}\\|`).test(answer)) {
        report(`status ${status}. ${STATUS_TEXTS[status] ?? 'Status desconhecido.'}`);
        return null;
    }
    const fields = (answer + '|'.repeat(KEY)).split('|');
    // In the answer to a document, CCCC comes before the message.
    report(`${fields[EEEEE]} ${fields[/^0[67]/.test(fields[EEEEE]) ? 3 : 2]}`);
    return fields;
}

/** Stops unless the answer has that code. */
function expect(eeeee, fields) {
    if (fields?.[EEEEE] !== eeeee) stop(STOPPED, 'Não foi feito: o programa termina aqui');
    return fields;
}

/** The device's answer in a session whose answer was lost; null if it does not know the session. */
function askAbout(lost, code) {
    console.log(`Não envie de novo: consultando a sessão ${sixDigits(lost)}`);
    for (let query = 0; query < QUERIES; ++query) {
        const fields = call('ConsultarNumeroSessao', nextSession(), code, lost);
        if (fields?.[EEEEE] === '11003') return null;
        if (fields && !fields[EEEEE].startsWith('11')) return fields; // 11...: query refused, perhaps busy
        Atomics.wait(new Int32Array(new SharedArrayBuffer(4)), 0, 0, PAUSE_MS);
    }
    stop(DOCUMENT_PENDING, 'O equipamento não disse o que houve');
}

/** Sends a document; sends it again only if the device says that it never got it. */
function deliver(operation, code, ...rest) {
    for (let attempt = 0; attempt < ATTEMPTS; ++attempt) {
        const session = nextSession();
        write(PENDING, `${operation} ${sixDigits(session)}`);
        sync(); // pendente.txt must survive a power cut during the call
        const fields = call(operation, session, code, ...rest);
        if (fields || fiscora.CodigoErro() === BAD_REQUEST) return fields;
        const known = askAbout(session, code);
        if (known) return known;
    }
    return null;
}

function save(path, base64) {
    const content = Buffer.from(base64, 'base64'); // skips invalid characters
    if (content.length === 0 || content.toString('base64') !== base64) throw new Error(`${path}: Base64 danificado`);
    write(path, content);
    console.log(`Gravado: ${path}`);
}

/** Books a document, saves the signed copy and returns its access key. */
function book(eeeee, operation, code, ...rest) {
    const fields = deliver(operation, code, ...rest);
    if (fields?.[EEEEE] === eeeee) {
        // It becomes a file name.
        if (!/^CFe[0-9]{44}$/.test(fields[KEY])) throw new Error(`chave inválida: ${fields[KEY]}`);
        save(`${fields[KEY]}.xml`, fields[DOCUMENT]);
        sync();
    }
    fs.unlinkSync(PENDING);
    return expect(eeeee, fields)[KEY];
}

function read(path) {
    const bytes = fs.existsSync(path) ? fs.readFileSync(path) : null;
    if (!bytes || !isUtf8(bytes)) stop(NOT_STARTED, 'Faltam venda.xml e cancelamento.xml, em UTF-8, na pasta atual');
    return bytes.toString();
}

function main() {
    if (fs.existsSync(PENDING)) stop(DOCUMENT_PENDING, 'Nada foi enviado');
    const code = process.env.CODIGO_DE_ATIVACAO;
    if (code === undefined) stop(NOT_STARTED, 'Informe o código de ativação em CODIGO_DE_ATIVACAO');
    const sale = read('venda.xml');
    const form = read('cancelamento.xml');
    if (!form.includes('CHAVE')) stop(NOT_STARTED, 'Falta a palavra CHAVE em cancelamento.xml');
    console.log(`Biblioteca fiscora, driver ${fiscora.getVersion()}`);

    expect('08000', call('ConsultarSAT', nextSession()));

    const key = book('06000', 'EnviarDadosVenda', code, sale);

    book('07000', 'CancelarUltimaVenda', code, key, form.replace('CHAVE', key));

    save('sat.log', expect('15000', call('ExtrairLogs', nextSession(), code))[LOG]);
}

try {
    main();
} catch (problem) {
    console.error(problem.message);
    stop(STOPPED, 'Não foi possível continuar');
}
