"""A day at the till in Python: query, sale, cancellation, the device's log. README.md says how to run it.

Exit status: 0 all done, 1 stopped, 2 not started, 3 a document is pending.
"""

import base64
import ctypes
import os
import re
import sys
import time
from pathlib import Path

STOPPED, NOT_STARTED, DOCUMENT_PENDING = 1, 2, 3
ATTEMPTS, QUERIES, PAUSE_S = 2, 5, 2
EEEEE, LOG, DOCUMENT, KEY = 1, 5, 6, 8  # fields of an answer
PENDING = Path("pendente.txt")

OK, BAD_REQUEST = 0, 8
STATUS_TEXTS = {
    OK: "Resposta ilegível ou de outra sessão.",
    1: "Equipamento não encontrado ou resposta danificada. Verifique o cabo.",
    2: "A comunicação caiu. Verifique o cabo e a energia do equipamento.",
    4: "O equipamento respondeu a outro pedido. Desligue-o e ligue-o de novo.",
    BAD_REQUEST: "Dados inválidos ou grandes demais: nada foi enviado. Corrija-os.",
    32768: "O equipamento não respondeu a tempo. Ele pode estar ocupado.",
}

library = ctypes.CDLL("libfiscora.so.1")
SESSION, TEXT = ctypes.c_int, ctypes.c_char_p
for name, *arguments in (("ConsultarSAT", SESSION), ("EnviarDadosVenda", SESSION, TEXT, TEXT),
                         ("CancelarUltimaVenda", SESSION, TEXT, TEXT, TEXT),
                         ("ConsultarNumeroSessao", SESSION, TEXT, SESSION), ("ExtrairLogs", SESSION, TEXT),
                         ("getVersion",)):
    function = getattr(library, name)
    # With argtypes, a str raises an exception. Without, ctypes would send wchar_t: a wrong activation code.
    function.argtypes = arguments
    # The result is a copy, as bytes. Without restype, Python would cut the pointer to an int of 32 bits.
    function.restype = TEXT


def stop(exit_status, why):
    """Exits with exit_status, or with DOCUMENT_PENDING if pendente.txt exists."""
    print(why)
    if PENDING.exists():
        exit_status = DOCUMENT_PENDING
        print("Antes de enviar outro documento, consulte a sessão e apague pendente.txt (README.md):",
              PENDING.read_text(errors="replace"))
    sys.exit(exit_status)


def write(path, content):
    """Writes the whole file or leaves the old one as it was."""
    Path("gravando.tmp").write_bytes(content)
    os.replace("gravando.tmp", path)


def next_session():
    """A number that no call has used, not even in an earlier run: a device books one document per number."""
    try:
        last = int(Path("sessao.txt").read_bytes())
    except (OSError, ValueError):
        last = int(time.time())
    session = (last + 1) % 1_000_000
    write("sessao.txt", b"%06d\n" % session)
    return session


def text(raw):
    """Most devices answer in UTF-8, some in Latin-1."""
    try:
        return raw.decode("utf-8")
    except UnicodeDecodeError:
        return raw.decode("latin-1")


def call(operation, session, *arguments, asked=None):
    """Makes and reports a call; numbers are int, texts bytes. Returns the answer's fields, missing ones empty, if it is
    complete, in time, and has this call's number in field 0, or the number asked about, which some devices put there.
    Otherwise None."""
    numbers = f"{session:06}|{session if asked is None else asked:06}"
    answer = text(getattr(library, operation)(session, *arguments))
    status = library.CodigoErro()
    print(f"{operation}, sessão {session:06}: ", end="")
    if status != OK or not re.match(rf"({numbers})\|[0-9]{{5}}\|", answer):
        print(f"status {status}. {STATUS_TEXTS.get(status, 'Status desconhecido.')}")
        return None
    fields = (answer + "|" * KEY).split("|")
    # In the answer to a document, CCCC comes before the message.
    print(fields[EEEEE], fields[3 if fields[EEEEE][:2] in ("06", "07") else 2])
    return fields


def expect(fields, eeeee):
    """Stops unless the answer has that code."""
    if not fields or fields[EEEEE] != eeeee:
        stop(STOPPED, "Não foi feito: o programa termina aqui")
    return fields


def ask_about(lost, code):
    """The device's answer in a session whose answer was lost; None if it does not know the session."""
    print(f"Não envie de novo: consultando a sessão {lost:06}")
    for _ in range(QUERIES):
        fields = call("ConsultarNumeroSessao", next_session(), code, lost, asked=lost)
        if fields and fields[EEEEE] == "11003":
            return None
        if fields and not fields[EEEEE].startswith("11"):  # 11...: query refused, perhaps busy
            return fields
        time.sleep(PAUSE_S)
    stop(DOCUMENT_PENDING, "O equipamento não disse o que houve")


def deliver(operation, code, *arguments):
    """Sends a document; sends it again only if the device says that it never got it."""
    for _ in range(ATTEMPTS):
        session = next_session()
        write(PENDING, b"%s %06d" % (operation.encode(), session))
        os.sync()  # pendente.txt must survive a power cut during the call
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
    """Books a document, saves the signed copy and returns its access key."""
    fields = deliver(operation, code, *arguments)
    if fields and fields[EEEEE] == eeeee:
        if not re.fullmatch("CFe[0-9]{44}", fields[KEY]):  # it becomes a file name
            raise ValueError(f"chave inválida: {fields[KEY]}")
        save(f"{fields[KEY]}.xml", fields[DOCUMENT])
        os.sync()
    PENDING.unlink()
    return expect(fields, eeeee)[KEY].encode()


def main():
    if PENDING.exists():
        stop(DOCUMENT_PENDING, "Nada foi enviado")
    if "CODIGO_DE_ATIVACAO" not in os.environ:
        stop(NOT_STARTED, "Informe o código de ativação em CODIGO_DE_ATIVACAO")
    code = os.environb[b"CODIGO_DE_ATIVACAO"]
    try:
        sale = Path("venda.xml").read_bytes()
        form = Path("cancelamento.xml").read_bytes()
    except OSError:
        stop(NOT_STARTED, "Faltam venda.xml e cancelamento.xml, em UTF-8, na pasta atual")
    if b"CHAVE" not in form:
        stop(NOT_STARTED, "Falta a palavra CHAVE em cancelamento.xml")
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
        stop(STOPPED, "Não foi possível continuar")
