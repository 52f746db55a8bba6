{ Makes a sale through fiscorad: the same key goes out until the outcome is known, and the next run goes on with it. }
program Servico;
{$mode objfpc}{$H+}
uses {$ifdef unix} cwstring, {$endif} Classes, SysUtils, fphttpclient, fpjson, jsonparser;
var Client: TFPHTTPClient; Key: TStringStream; Outcome: TJSONObject;

{ The body of the answer; asks again as long as there is none (status 0 or an exception) or it is no outcome. }
function Ask(const Method, URL: AnsiString): TStringStream;
begin
  repeat
    Result := TStringStream.Create('');
    if Client.RequestBody <> nil then Client.RequestBody.Position := 0;
    try
      Client.HTTPMethod(Method, URL, Result, []);
      if (Client.ResponseStatusCode in [200, 201]) or (Client.ResponseStatusCode div 100 = 4) then Exit;
    except
      on Problem: Exception do Result.WriteString(Problem.Message);
    end;
    WriteLn('Ainda sem desfecho: ', Result.DataString); Sleep(2000);
  until False;
end;
begin
  Client := TFPHTTPClient.Create(nil); Client.IOTimeout := 90000; { ms }
  Key := TStringStream.Create('');
  if FileExists('chave.txt') then Key.LoadFromFile('chave.txt');
  if Key.Size = 0 then begin { on disk before the first attempt }
    Key.WriteString('caixa1-' + TGUID.NewGuid.ToString(True));
    with TFileStream.Create('chave.txt', fmCreate) do begin CopyFrom(Key, 0); FileFlush(Handle); Free; end;
  end;
  Client.RequestBody := TFileStream.Create('venda.xml', fmOpenRead);
  Client.AddHeader('Idempotency-Key', Key.DataString);
  Client.AddHeader('Content-Type', 'application/xml');
  Outcome := TJSONObject(GetJSON(Ask('POST', ParamStr(1) + '/v1/vendas').DataString));
  WriteLn(Outcome.Get('chaveConsulta', Outcome.Get('detail', '')));
  Client.RequestBody := nil;
  if Outcome.Get('documento', '') <> '' then
    Ask('GET', ParamStr(1) + Outcome.Get('documento', '')).SaveToFile(Outcome.Get('chaveConsulta', '') + '.xml');
  if Outcome.Get('estado', '') <> '' then DeleteFile('chave.txt'); { final: the next sale needs a key of its own }
  if Outcome.Get('estado', '') <> 'emitida' then Halt(1);
end.
