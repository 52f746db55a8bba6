// A day at the till in Node: status, sale, cancellation, the device's log. ../README.md says how to run it.
// Exit status: 0 all done, 1 not done, 2 nothing begun, 3 nobody knows what became of a document.
'use strict';

const fs = require('node:fs');
const { isUtf8 } = require('node:buffer');
const koffi = require('koffi');

const NOT_DONE = 1, NOT_BEGUN = 2, UNKNOWN = 3;
const SENDINGS = 2, QUESTIONS = 5, PAUSE = 2000; // ms
const EEEEE = 1, LOG = 5, DOCUMENT = 6, KEY = 8; // fields of an answer
const PENDING = 'pendente.txt';

const OK = 0, NO_ANSWER = 1, READ_ERROR = 2, REFUSED = 4, BAD_REQUEST = 8, TIMEOUT = 32768;
const EXPLANATIONS = {
    [OK]: 'resposta ilegível ou de outra sessão',
    [NO_ANSWER]: 'sem equipamento ou resposta danificada: verifique o cabo',
    [READ_ERROR]: 'a linha caiu: verifique o cabo e a energia do equipamento',
    [REFUSED]: 'resposta de outro comando: desligue e ligue o equipamento',
    [BAD_REQUEST]: 'pedido grande demais, nada foi enviado: corrija os dados',
    [TIMEOUT]: 'sem resposta a tempo: o equipamento pode estar ocupado',
};

// Arguments go as UTF-8. Results come as pointers: as texts, koffi would take them for UTF-8 in any case. A call blocks
// the event loop; a program with windows makes it in a worker thread, one call at a time.
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

/** Ends the day; with UNKNOWN as long as pendente.txt stands. */
function stop(exitStatus, why) {
    console.log(why);
    if (!fs.existsSync(PENDING)) process.exit(exitStatus);
    console.log('Antes de enviar outro documento, pergunte pela sessão e apague pendente.txt (README.md):',
        fs.readFileSync(PENDING, 'utf8'));
    process.exit(UNKNOWN);
}

/** Writes a file whole or not at all. */
function write(path, content) {
    fs.writeFileSync('gravando.tmp', content);
    fs.renameSync('gravando.tmp', path);
}

const sixDigits = (session) => String(session).padStart(6, '0');

/** A number that no call had before, in no earlier run either: a device books one document a number. */
function nextSession() {
    let last = fs.existsSync('sessao.txt') ? parseInt(fs.readFileSync('sessao.txt', 'ascii'), 10) : NaN;
    if (Number.isNaN(last)) last = Math.floor(Date.now() / 1000);
    const session = (last + 1) % 1_000_000;
    write('sessao.txt', sixDigits(session) + '\n');
    return session;
}

/** A copy: the next call overwrites the memory. Devices answer in UTF-8, some in Latin-1. */
function text(pointer) {
    const bytes = Buffer.from(koffi.decode(pointer, 'uint8_t', strlen(pointer)));
    return bytes.toString(isUtf8(bytes) ? 'utf8' : 'latin1');
}

/**
 * Calls and reports. The fields of the answer, those that it has not empty; null where there is none in time, whole, and
 * under the number of this very call or the one that it asks about, which some devices put there.
 */
function call(operation, session, ...rest) {
    const asked = operation === 'ConsultarNumeroSessao' ? rest.at(-1) : session;
    const answer = text(fiscora[operation](session, ...rest));
    const status = fiscora.CodigoErro();
    const report = (outcome) => console.log(`${operation}, sessão ${sixDigits(session)}: ${outcome}`);
    if (status !== OK || !new RegExp(`^(${sixDigits(session)}|${sixDigits(asked)})\\|[0-9]{5}\\|`).test(answer)) {
        report(`status ${status}, ${EXPLANATIONS[status] ?? 'status desconhecido'}`);
        return null;
    }
    const fields = (answer + '|'.repeat(KEY)).split('|');
    report(`${fields[EEEEE]} ${fields[/^0[67]/.test(fields[EEEEE]) ? 3 : 2]}`); // a document's CCCC stands between
    return fields;
}

/** The fields of an answer that says so; there is no other way on. */
function expect(eeeee, fields) {
    if (fields?.[EEEEE] !== eeeee) stop(NOT_DONE, 'Não foi feito: o dia termina aqui');
    return fields;
}

/** What the device answered in a session whose answer is missing; null where it knows nothing of it. */
function askAbout(lost, code) {
    console.log(`Não envie de novo: perguntando pela sessão ${sixDigits(lost)}`);
    for (let question = 0; question < QUESTIONS; ++question) {
        const fields = call('ConsultarNumeroSessao', nextSession(), code, lost);
        if (fields?.[EEEEE] === '11003') return null;
        if (fields && !fields[EEEEE].startsWith('11')) return fields; // else it is refused, by a busy device say
        Atomics.wait(new Int32Array(new SharedArrayBuffer(4)), 0, 0, PAUSE);
    }
    stop(UNKNOWN, 'O equipamento não disse o que houve');
}

/** Sends a document until the device has answered, a second time only where it knows nothing of the first. */
function deliver(operation, code, ...rest) {
    for (let sending = 0; sending < SENDINGS; ++sending) {
        const session = nextSession();
        write(PENDING, `${operation} ${sixDigits(session)}`);
        sync(); // a power cut from here on leaves pendente.txt
        const fields = call(operation, session, code, ...rest);
        if (fields || fiscora.CodigoErro() === BAD_REQUEST) return fields;
        const known = askAbout(session, code);
        if (known) return known;
    }
    return null;
}

function save(path, base64) {
    const content = Buffer.from(base64, 'base64'); // leaves out what is no Base64
    if (content.length === 0 || content.toString('base64') !== base64) throw new Error(`${path}: Base64 danificado`);
    write(path, content);
    console.log(`Gravado: ${path}`);
}

/** Books a document and saves it as the device has signed it; its key. */
function book(eeeee, operation, code, ...rest) {
    const fields = deliver(operation, code, ...rest);
    if (fields?.[EEEEE] === eeeee) {
        // It becomes a file's name.
        if (!/^CFe[0-9]{44}$/.test(fields[KEY])) throw new Error(`chave inválida: ${fields[KEY]}`);
        save(`${fields[KEY]}.xml`, fields[DOCUMENT]);
        sync();
    }
    fs.unlinkSync(PENDING);
    return expect(eeeee, fields)[KEY];
}

function read(path) {
    const bytes = fs.existsSync(path) ? fs.readFileSync(path) : null;
    if (!bytes || !isUtf8(bytes)) stop(NOT_BEGUN, 'Faltam venda.xml e cancelamento.xml, em UTF-8, na pasta atual');
    return bytes.toString();
}

function main() {
    if (fs.existsSync(PENDING)) stop(UNKNOWN, 'Nada foi enviado');
    const code = process.env.CODIGO_DE_ATIVACAO;
    if (code === undefined) stop(NOT_BEGUN, 'Informe o código de ativação em CODIGO_DE_ATIVACAO');
    const sale = read('venda.xml');
    const form = read('cancelamento.xml');
    if (!form.includes('CHAVE')) stop(NOT_BEGUN, 'Falta a palavra CHAVE em cancelamento.xml');
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
    stop(NOT_DONE, 'Não foi possível continuar');
}
