"""Makes a sale through fiscorad: the same key goes out until the outcome is known, and the next run goes on with it."""
import http.client
import json
import os
import sys
import time
import uuid
from pathlib import Path
from urllib import error, request

SERVICE, KEY = sys.argv[1], Path("chave.txt")  # the service's address; the key of the sale in hand

def ask(path, sale=None, **headers):
    """Status and body of the answer; asks again as long as there is none or it is no outcome."""
    while True:
        try:
            with request.urlopen(request.Request(SERVICE + path, sale, headers), timeout=90) as answer:
                status, body = answer.status, answer.read()
        except error.HTTPError as answer:
            status, body = answer.code, answer.read()
        except (OSError, http.client.HTTPException) as problem:
            status, body = 503, str(problem).encode()
        if status != 202 and status < 500:
            return status, body
        print("Ainda sem desfecho:", body.decode(errors="replace"), flush=True)
        time.sleep(2)

with KEY.open("ab", buffering=0) as file:
    if file.tell() == 0:
        file.write(f"caixa1-{uuid.uuid4()}".encode())
    os.fsync(file.fileno())  # before the first attempt
status, body = ask("/v1/vendas", Path("venda.xml").read_bytes(),
                   **{"Idempotency-Key": KEY.read_text(), "Content-Type": "application/xml"})
outcome = json.loads(body)
print(outcome.get("chaveConsulta") or outcome["detail"])
if "documento" in outcome:
    Path(outcome["chaveConsulta"] + ".xml").write_bytes(ask(outcome["documento"])[1])
if "estado" in outcome:  # final: the next sale needs a key of its own
    KEY.unlink()
sys.exit(0 if status < 300 else 1)
