"""Queries the device and makes a sale, with the library. README.md says how to run it and what exit status 3 asks for."""
import base64
import ctypes
import os
import random
import re
import sys
from pathlib import Path

NOT_SOLD, OUTCOME_UNKNOWN = 1, 3
EEEEE, MESSAGE, DOCUMENT, KEY = 1, 3, 6, 8  # fields of the answer to a sale
OK, BAD_REQUEST = 0, 8
PENDING = Path("pendente.txt")

library = ctypes.CDLL("libfiscora.so.1")
SESSION, TEXT = ctypes.c_int, ctypes.c_char_p
for name, *arguments in (("ConsultarSAT", SESSION), ("EnviarDadosVenda", SESSION, TEXT, TEXT)):
    # With argtypes, a str raises an exception; without, a wrong activation code would be sent. Without restype, Python
    # would cut the pointer to 32 bits.
    getattr(library, name).argtypes = arguments
    getattr(library, name).restype = TEXT


def call(operation, session, *arguments):
    """The fields of the answer; None if it is not this call's, or only says that the device is busy."""
    raw = getattr(library, operation)(session, *arguments)  # a copy
    status = library.CodigoErro()
    answer = raw.decode("utf-8", errors="replace")  # some devices answer in Latin-1
    print(f"{operation}, sessão {session:06}: status {status}, {answer[:40]}")
    own = status == OK and re.match(rf"{session:06}\|(?!..09[89])[0-9]{{5}}\|", answer)
    return answer.split("|") if own else None


def main():
    code, sale = os.environb[b"CODIGO_DE_ATIVACAO"], Path("venda.xml").read_bytes()
    fields = call("ConsultarSAT", random.randrange(1_000_000))
    if not fields or fields[EEEEE] != "08000":
        print("O equipamento não está em operação")
        sys.exit(NOT_SOLD)
    session = random.randrange(1_000_000)
    try:
        with PENDING.open("x") as pending:  # fails if the file exists: an earlier sale has no outcome yet
            pending.write(f"{session:06}\n")
    except FileExistsError:
        print("Resolva primeiro a venda de pendente.txt: veja README.md")
        sys.exit(OUTCOME_UNKNOWN)
    fields = call("EnviarDadosVenda", session, code, sale)
    if not fields and library.CodigoErro() != BAD_REQUEST:
        print("Não venda de novo: não se sabe se esta foi feita. Veja README.md")
        sys.exit(OUTCOME_UNKNOWN)
    if fields and fields[EEEEE] == "06000":
        assert re.fullmatch("CFe[0-9]{44}", fields[KEY]), fields[KEY]  # it becomes a file name
        Path(fields[KEY] + ".xml").write_bytes(base64.b64decode(fields[DOCUMENT], validate=True))
        print("Gravado:", fields[KEY] + ".xml")
    PENDING.unlink()
    sys.exit(0 if fields and fields[EEEEE] == "06000" else NOT_SOLD)


main()
