#!/bin/sh
# Makes a sale through fiscorad: the same key goes out until the outcome is known, and the next run goes on with it.
service=$1 # its address

# ask FILE OPTION... writes the body of the answer to FILE and prints its status; asks again as long as there is none or it
# is no outcome.
ask() {
    file=$1
    shift
    while :; do
        status=$(curl --silent --show-error --max-time 90 --output "$file" --write-out '%{http_code}' "$@")
        case $status in 200 | 201 | 4??) break ;; esac
        echo "Ainda sem desfecho: HTTP $status" >&2
        sleep 2
    done
    echo "$status"
}

# The key of the sale in hand: on disk before the first attempt.
[ -s chave.txt ] || echo "caixa1-$(cat /proc/sys/kernel/random/uuid)" >chave.txt || exit 1
sync chave.txt
key=$(cat chave.txt)
status=$(ask resposta.json --header "Idempotency-Key: $key" --header 'Content-Type: application/xml' \
    --data-binary @venda.xml "$service/v1/vendas")
access_key=$(grep -o 'CFe[0-9]\{44\}' resposta.json | head -n 1)
echo "${access_key:-$(cat resposta.json)}"
if grep -q '"documento":' resposta.json; then
    ask "$access_key.xml" "$service/v1/vendas/$key/documento" >/dev/null
fi
if grep -q '"estado":' resposta.json; then rm chave.txt; fi # final: the next sale needs a key of its own
[ "$status" -lt 300 ]
