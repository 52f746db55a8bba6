{ Queries the device and makes a sale, with the library. README.md says how to run it and what exit status 3 asks for. }
program Venda;
{$mode objfpc}{$H+}
{$linklib c} { the C library must start the program: libfiscora needs it }
uses Base64, Classes, SysUtils;

function ConsultarSAT(Session: LongInt): PAnsiChar; cdecl; external 'fiscora';
function EnviarDadosVenda(Session: LongInt; Code, Sale: PAnsiChar): PAnsiChar; cdecl; external 'fiscora';
function CodigoErro: LongInt; cdecl; external 'fiscora';
const
  NOT_SOLD = 1; OUTCOME_UNKNOWN = 3; PENDING = 'pendente.txt';
  EEEEE = 1; DOCUMENT = 6; KEY = 8; { fields of an answer }
  OK = 0; BAD_REQUEST = 8;

procedure Stop(ExitStatus: Integer; const Why: AnsiString);
begin
  WriteLn(Why);
  Halt(ExitStatus);
end;

{ The answer's fields, copied because the next call overwrites it; all are empty if it is not this call's, or only says
  that the device is busy. }
function Receive(const Operation: AnsiString; Session: LongInt; const Answer: AnsiString): TStringArray;
begin
  WriteLn(Format('%s, sessão %.6d: status %d, %s', [Operation, Session, CodigoErro, Copy(Answer, 1, 40)]));
  Result := (Answer + StringOfChar('|', KEY)).Split(['|']);
  if (CodigoErro <> OK) or (Result[0] <> Format('%.6d', [Session])) or (Length(Result[EEEEE]) <> 5)
    or Result[EEEEE].EndsWith('098') or Result[EEEEE].EndsWith('099') then
    Result := StringOfChar('|', KEY).Split(['|']);
end;

var
  Code: AnsiString;
  Session: LongInt;
  Fields: TStringArray; Sale: TStringStream;
begin
  Code := GetEnvironmentVariable('CODIGO_DE_ATIVACAO');
  if (Code = '') or not FileExists('venda.xml') then Stop(NOT_SOLD, 'Faltam CODIGO_DE_ATIVACAO ou venda.xml');
  Sale := TStringStream.Create('');
  Sale.LoadFromFile('venda.xml');
  Randomize;
  Session := Random(999999);
  if Receive('ConsultarSAT', Session, ConsultarSAT(Session))[EEEEE] <> '08000' then
    Stop(NOT_SOLD, 'O equipamento não está em operação');
  Inc(Session);
  if FileExists(PENDING) then Stop(OUTCOME_UNKNOWN, 'Resolva primeiro a venda de pendente.txt: veja README.md');
  TStringStream.Create(Format('%.6d', [Session])).SaveToFile(PENDING);
  Fields := Receive('EnviarDadosVenda', Session, EnviarDadosVenda(Session, PAnsiChar(Code), PAnsiChar(Sale.DataString)));
  if (Fields[EEEEE] = '') and (CodigoErro <> BAD_REQUEST) then
    Stop(OUTCOME_UNKNOWN, 'Não venda de novo: não se sabe se esta foi feita. Veja README.md');
  if Fields[EEEEE] = '06000' then
  begin
    if (Length(Fields[KEY]) <> 47) or (Fields[KEY].TrimRight('0123456789'.ToCharArray) <> 'CFe') then
      Stop(OUTCOME_UNKNOWN, 'A chave de acesso é inválida'); { it becomes a file name }
    TStringStream.Create(DecodeStringBase64(Fields[DOCUMENT])).SaveToFile(Fields[KEY] + '.xml');
    WriteLn('Gravado: ', Fields[KEY], '.xml');
  end;
  DeleteFile(PENDING);
  if Fields[EEEEE] <> '06000' then Halt(NOT_SOLD);
end.
