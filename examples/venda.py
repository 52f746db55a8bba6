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
    print(why)
    sys.exit(exit_status)


def next_session():
    """A number that no call had before, in no earlier run either: a device books one document a number."""
    path = Path("sessao.txt")
    try:
        last = int(path.read_text())
    except (OSError, ValueError):
        last = int(time.time())
    session = (last + 1) % 1_000_000
    path.write_text(f"{session:06}\n")
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
    stop(UNKNOWN, f"Sessão {lost:06} pendente: pergunte por ela antes de enviar outro documento")


def book(operation, code, *arguments):
    """Sends a document until the device has answered, a second time only where it knows nothing of the first."""
    for _ in range(SENDINGS):
        session = next_session()
        fields = call(operation, session, code, *arguments)
        if fields or library.CodigoErro() == BAD_REQUEST:
            return fields
        fields = ask_about(session, code)
        if fields:
            return fields
    return None


def save(path, field):
    Path(path).write_bytes(base64.b64decode(field))
    print(f"Gravado: {path}")


def main():
    if "CODIGO_DE_ATIVACAO" not in os.environ:
        stop(NOT_BEGUN, "Informe o código de ativação em CODIGO_DE_ATIVACAO")
    code = os.environb[b"CODIGO_DE_ATIVACAO"]
    try:
        sale = Path("venda.xml").read_bytes()
        form = Path("cancelamento.xml").read_bytes()
    except OSError:
        stop(NOT_BEGUN, "Faltam venda.xml e cancelamento.xml na pasta atual")
    print(f"Biblioteca fiscora, driver {text(library.getVersion())}")

    expect(call("ConsultarSAT", next_session()), "08000")

    fields = expect(book("EnviarDadosVenda", code, sale), "06000")
    save(f"{fields[KEY]}.xml", fields[DOCUMENT])

    key = fields[KEY].encode()
    fields = expect(book("CancelarUltimaVenda", code, key, form.replace(b"CHAVE", key)), "07000")
    save(f"{fields[KEY]}.xml", fields[DOCUMENT])

    fields = expect(call("ExtrairLogs", next_session(), code), "15000")
    save("sat.log", fields[LOG])


if __name__ == "__main__":
    main()
