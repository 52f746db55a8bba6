"""A day at the till in Python: status, sale, cancellation, the device's log. README.md says how to run it.

Exit status: 0 all done, 1 not done, 2 nothing begun, 3 nobody knows what became of a document.
"""

import base64
import ctypes
import os
import re
import sys
import time
from pathlib import Path

NOT_DONE, NOT_BEGUN, UNKNOWN = 1, 2, 3
SENDINGS, QUESTIONS, PAUSE = 2, 5, 2  # s
EEEEE, LOG, DOCUMENT, KEY = 1, 5, 6, 8  # fields of an answer
PENDING = Path("pendente.txt")

OK, NO_ANSWER, READ_ERROR, REFUSED, BAD_REQUEST, TIMEOUT = 0, 1, 2, 4, 8, 32768
EXPLANATIONS = {
    OK: "resposta ilegível ou de outra sessão",
    NO_ANSWER: "sem equipamento ou resposta danificada: verifique o cabo",
    READ_ERROR: "a linha caiu: verifique o cabo e a energia do equipamento",
    REFUSED: "resposta de outro comando: desligue e ligue o equipamento",
    BAD_REQUEST: "pedido grande demais, nada foi enviado: corrija os dados",
    TIMEOUT: "sem resposta a tempo: o equipamento pode estar ocupado",
}

library = ctypes.CDLL("libfiscora.so.1")
for name in ("ConsultarSAT", "EnviarDadosVenda", "CancelarUltimaVenda", "ConsultarNumeroSessao", "ExtrairLogs",
             "getVersion"):
    # c_char_p hands out a copy as bytes; without it Python takes the pointer for an int of 32 bits.
    getattr(library, name).restype = ctypes.c_char_p


def stop(exit_status, why):
    """Ends the day; with UNKNOWN as long as pendente.txt stands."""
    print(why)
    if PENDING.exists():
        exit_status = UNKNOWN
        print("Antes de enviar outro documento, pergunte pela sessão e apague pendente.txt (README.md):",
              PENDING.read_text(errors="replace"))
    sys.exit(exit_status)


def write(path, content):
    """Writes a file whole or not at all."""
    Path("gravando.tmp").write_bytes(content)
    os.replace("gravando.tmp", path)


def next_session():
    """A number that no call had before, in no earlier run either: a device books one document a number."""
    try:
        last = int(Path("sessao.txt").read_bytes())
    except (OSError, ValueError):
        last = int(time.time())
    session = (last + 1) % 1_000_000
    write("sessao.txt", b"%06d\n" % session)
    return session


def text(raw):
    """Devices answer in UTF-8, some in Latin-1."""
    try:
        return raw.decode("utf-8")
    except UnicodeDecodeError:
        return raw.decode("latin-1")


def call(operation, session, *arguments, asked=None):
    """Calls and reports; numbers go as int, texts as bytes. The fields of the answer, those that it has not empty; None
    where there is none in time, whole, and under the number of this very call or the one that it asks about, which some
    devices put there."""
    numbers = f"{session:06}|{session if asked is None else asked:06}"
    answer = text(getattr(library, operation)(session, *arguments))
    status = library.CodigoErro()
    print(f"{operation}, sessão {session:06}: ", end="")
    if status != OK or not re.match(rf"({numbers})\|[0-9]{{5}}\|", answer):
        print(f"status {status}, {EXPLANATIONS.get(status, 'status desconhecido')}")
        return None
    fields = (answer + "|" * KEY).split("|")
    print(fields[EEEEE], fields[3 if fields[EEEEE][:2] in ("06", "07") else 2])  # a document's CCCC stands between
    return fields


def expect(fields, eeeee):
    """The fields of an answer that says so; there is no other way on."""
    if not fields or fields[EEEEE] != eeeee:
        stop(NOT_DONE, "Não foi feito: o dia termina aqui")
    return fields


def ask_about(lost, code):
    """What the device answered in a session whose answer is missing; None where it knows nothing of it."""
    print(f"Não envie de novo: perguntando pela sessão {lost:06}")
    for _ in range(QUESTIONS):
        fields = call("ConsultarNumeroSessao", next_session(), code, lost, asked=lost)
        if fields and fields[EEEEE] == "11003":
            return None
        if fields and not fields[EEEEE].startswith("11"):  # else the question is refused, by a busy device for example
            return fields
        time.sleep(PAUSE)
    stop(UNKNOWN, "O equipamento não disse o que houve")


def deliver(operation, code, *arguments):
    """Sends a document until the device has answered, a second time only where it knows nothing of the first."""
    for _ in range(SENDINGS):
        session = next_session()
        write(PENDING, b"%s %06d" % (operation.encode(), session))
        os.sync()  # a power cut from here on leaves pendente.txt
        fields = call(operation, session, code, *arguments)
        if fields or library.CodigoErro() == BAD_REQUEST:
            return fields
        fields = ask_about(session, code)
        if fields:
            return fields
    return None


def save(path, field):
    content = base64.b64decode(field, validate=True)
    if not content:
        raise ValueError(f"{path}: documento vazio")
    write(path, content)
    print(f"Gravado: {path}")


def book(eeeee, operation, code, *arguments):
    """Books a document and saves it as the device has signed it; its key."""
    fields = deliver(operation, code, *arguments)
    if fields and fields[EEEEE] == eeeee:
        if not re.fullmatch("CFe[0-9]{44}", fields[KEY]):  # it becomes a file's name
            raise ValueError(f"chave inválida: {fields[KEY]}")
        save(f"{fields[KEY]}.xml", fields[DOCUMENT])
        os.sync()
    PENDING.unlink()
    return expect(fields, eeeee)[KEY].encode()


def main():
    if PENDING.exists():
        stop(UNKNOWN, "Nada foi enviado")
    if "CODIGO_DE_ATIVACAO" not in os.environ:
        stop(NOT_BEGUN, "Informe o código de ativação em CODIGO_DE_ATIVACAO")
    code = os.environb[b"CODIGO_DE_ATIVACAO"]
    try:
        sale = Path("venda.xml").read_bytes()
        form = Path("cancelamento.xml").read_bytes()
    except OSError:
        stop(NOT_BEGUN, "Faltam venda.xml e cancelamento.xml, em UTF-8, na pasta atual")
    if b"CHAVE" not in form:
        stop(NOT_BEGUN, "Falta a palavra CHAVE em cancelamento.xml")
    print(f"Biblioteca fiscora, driver {text(library.getVersion())}")

    expect(call("ConsultarSAT", next_session()), "08000")

    key = book("06000", "EnviarDadosVenda", code, sale)

    book("07000", "CancelarUltimaVenda", code, key, form.replace(b"CHAVE", key))

    fields = expect(call("ExtrairLogs", next_session(), code), "15000")
    save("sat.log", fields[LOG])


if __name__ == "__main__":
    try:
        main()
    except (OSError, ValueError) as problem:
        print(problem, file=sys.stderr)
        stop(NOT_DONE, "Não foi possível continuar")
