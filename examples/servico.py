"""Makes a sale through fiscorad: the same key goes out until the outcome is known, and the next run goes on with it."""
import http.client
import json
import sys
import time
import urllib.error
import urllib.request
import uuid
from pathlib import Path

SERVICE = sys.argv[1]  # its address
KEY = Path("chave.txt")  # of the sale in hand: on disk before the first attempt

def ask(path, sale=None, **headers):
    """Status and body of the answer; asks again as long as there is none or it is no outcome."""
    while True:
        try:
            with urllib.request.urlopen(urllib.request.Request(SERVICE + path, sale, headers), timeout=90) as answer:
                status, body = answer.status, answer.read()
        except urllib.error.HTTPError as error:
            status, body = error.code, error.read()
        except (OSError, http.client.HTTPException) as error:
            status, body = 503, str(error).encode()
        if status != 202 and status < 500:
            return status, body
        print("Ainda sem desfecho:", body.decode(errors="replace"), flush=True)
        time.sleep(2)


if not KEY.exists():
    KEY.write_text(f"caixa1-{uuid.uuid4()}")
status, body = ask("/v1/vendas", Path("venda.xml").read_bytes(),
                   **{"Idempotency-Key": KEY.read_text(), "Content-Type": "application/xml"})
outcome = json.loads(body)
print(outcome.get("chaveConsulta") or outcome["detail"])
if "documento" in outcome:
    Path(outcome["chaveConsulta"] + ".xml").write_bytes(ask(outcome["documento"])[1])
if "estado" in outcome:  # final: the next sale needs a key of its own
    KEY.unlink()
sys.exit(0 if status < 300 else 1)
