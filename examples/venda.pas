{ A day at the till in Free Pascal: query, sale, cancellation, the device's log. README.md says how to build and run it.
  Exit status: 0 all done, 1 stopped, 2 not started, 3 a document is pending. }
program Venda;

{$mode objfpc}{$H+}
{$linklib c} { the C library must start the program: libfiscora needs it }

uses
  Classes, SysUtils;

function ConsultarSAT(Session: LongInt): PAnsiChar; cdecl; external 'fiscora';
function EnviarDadosVenda(Session: LongInt; Code, Sale: PAnsiChar): PAnsiChar; cdecl; external 'fiscora';
function CancelarUltimaVenda(Session: LongInt; Code, Key, Cancellation: PAnsiChar): PAnsiChar; cdecl; external 'fiscora';
function ConsultarNumeroSessao(Session: LongInt; Code: PAnsiChar; Lost: LongInt): PAnsiChar; cdecl; external 'fiscora';
function ExtrairLogs(Session: LongInt; Code: PAnsiChar): PAnsiChar; cdecl; external 'fiscora';
function CodigoErro: LongInt; cdecl; external 'fiscora';
function getVersion: PAnsiChar; cdecl; external 'fiscora';
procedure sync; cdecl; external 'c';

const
  STOPPED = 1; NOT_STARTED = 2; DOCUMENT_PENDING = 3;
  ATTEMPTS = 2; QUERIES = 5; PAUSE_MS = 2000;
  EEEEE = 1; LOG = 5; DOCUMENT = 6; KEY = 8; { fields of an answer }
  OK = 0; BAD_REQUEST = 8;
  PENDING = 'pendente.txt';

type
  { The fields of an answer. The bytes are as the device sent them: UTF-8 or, with some devices, Latin-1. To convert a
    RawByteString: the unit cwstring, SetCodePage(Text, 28591, False), then SetCodePage(Text, CP_UTF8, True). }
  TFields = TStringArray;
  TSend = function(Session: LongInt): PAnsiChar;

var
  Code, Sale, SaleKey, Cancellation: AnsiString;

function StatusText(Status: LongInt): AnsiString;
begin
  case Status of
    OK: Result := 'Resposta ilegível ou de outra sessão.';
    1: Result := 'Equipamento não encontrado ou resposta danificada. Verifique o cabo.';
    2: Result := 'A comunicação caiu. Verifique o cabo e a energia do equipamento.';
    4: Result := 'O equipamento respondeu a outro pedido. Desligue-o e ligue-o de novo.';
    BAD_REQUEST: Result := 'Dados inválidos ou grandes demais: nada foi enviado. Corrija-os.';
    32768: Result := 'O equipamento não respondeu a tempo. Ele pode estar ocupado.';
  else
    Result := 'Status desconhecido.';
  end;
end;

function ReadFile(const Path: AnsiString): AnsiString;
begin
  with TStringStream.Create('') do
  try
    LoadFromFile(Path);
    Result := DataString;
  finally
    Free;
  end;
end;

{ Writes the whole file or leaves the old one as it was. }
procedure WriteFile(const Path, Content: AnsiString);
begin
  with TStringStream.Create(Content) do
  try
    SaveToFile('gravando.tmp');
  finally
    Free;
  end;
  if not RenameFile('gravando.tmp', Path) then RaiseLastOSError;
end;

{ Exits with ExitStatus, or with DOCUMENT_PENDING if pendente.txt exists. }
procedure Stop(ExitStatus: Integer; const Why: AnsiString);
begin
  WriteLn(Why);
  if not FileExists(PENDING) then Halt(ExitStatus);
  WriteLn('Antes de enviar outro documento, consulte a sessão e apague pendente.txt (README.md): ', ReadFile(PENDING));
  Halt(DOCUMENT_PENDING);
end;

{ A number that no call has used, not even in an earlier run: a device books one document per number. }
function NextSession: LongInt;
var
  Last: Int64;
begin
  if not FileExists('sessao.txt') or not TryStrToInt64(Trim(ReadFile('sessao.txt')), Last) then
    Last := Trunc((Now - UnixDateDelta) * SecsPerDay);
  Result := (Last + 1) mod 1000000;
  WriteFile('sessao.txt', Format('%.6d'#10, [Result]));
end;

{ Copies the answer, because the next call overwrites it, and reports it. Returns its fields, missing ones empty, if it
  is complete, in time, and has this call's number in field 0, or the number asked about, which some devices put there.
  Otherwise nil. }
function Receive(const Operation: AnsiString; Session: LongInt; Answer: PAnsiChar; Asked: LongInt = -1): TFields;
var
  Status, Number: LongInt;
begin
  Status := CodigoErro;
  Result := (AnsiString(Answer) + StringOfChar('|', KEY + 1)).Split(['|']);
  Write(Format('%s, sessão %.6d: ', [Operation, Session]));
  if (Status <> OK) or (Length(Result[EEEEE]) <> 5) or not TryStrToInt(Result[EEEEE], Number)
    or ((Result[0] <> Format('%.6d', [Session])) and (Result[0] <> Format('%.6d', [Asked]))) then
  begin
    WriteLn(Format('status %d. %s', [Status, StatusText(Status)]));
    Exit(nil);
  end;
  { In the answer to a document, CCCC comes before the message. }
  if Result[EEEEE].StartsWith('06') or Result[EEEEE].StartsWith('07') then
    WriteLn(Result[EEEEE], ' ', Result[3])
  else
    WriteLn(Result[EEEEE], ' ', Result[2]);
end;

{ Stops unless the answer has that code. }
function Expect(const Code: AnsiString; const Fields: TFields): TFields;
begin
  if (Fields = nil) or (Fields[EEEEE] <> Code) then Stop(STOPPED, 'Não foi feito: o programa termina aqui');
  Result := Fields;
end;

{ The device's answer in a session whose answer was lost; nil if it does not know the session. }
function AskAbout(Lost: LongInt): TFields;
var
  Query: Integer;
  Session: LongInt;
begin
  WriteLn(Format('Não envie de novo: consultando a sessão %.6d', [Lost]));
  for Query := 1 to QUERIES do
  begin
    Session := NextSession;
    Result := Receive('ConsultarNumeroSessao', Session, ConsultarNumeroSessao(Session, PAnsiChar(Code), Lost), Lost);
    if (Result <> nil) and (Result[EEEEE] = '11003') then Exit(nil);
    if (Result <> nil) and not Result[EEEEE].StartsWith('11') then Exit; { 11...: query refused, perhaps busy }
    Sleep(PAUSE_MS);
  end;
  Stop(DOCUMENT_PENDING, 'O equipamento não disse o que houve');
end;

function SendSale(Session: LongInt): PAnsiChar;
begin
  Result := EnviarDadosVenda(Session, PAnsiChar(Code), PAnsiChar(Sale));
end;

function SendCancellation(Session: LongInt): PAnsiChar;
begin
  Result := CancelarUltimaVenda(Session, PAnsiChar(Code), PAnsiChar(SaleKey), PAnsiChar(Cancellation));
end;

{ Sends a document; sends it again only if the device says that it never got it. }
function Deliver(const Operation: AnsiString; Send: TSend): TFields;
var
  Attempt: Integer;
  Session: LongInt;
begin
  for Attempt := 1 to ATTEMPTS do
  begin
    Session := NextSession;
    WriteFile(PENDING, Format('%s %.6d', [Operation, Session]));
    sync; { pendente.txt must survive a power cut during the call }
    Result := Receive(Operation, Session, Send(Session));
    if (Result <> nil) or (CodigoErro = BAD_REQUEST) then Exit;
    Result := AskAbout(Session);
    if Result <> nil then Exit;
  end;
end;

{ Decodes a field from Base64 and writes it to a file. With the package fp-units-fcl, the unit base64 decodes it. }
procedure Save(const Path, Field: AnsiString);
const
  DIGITS = 'ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/';
var
  Digit: AnsiChar;
  Content: AnsiString = '';
  Value: LongWord = 0;
  Place: Integer = 0;
  Bits: Integer = 0;
begin
  for Digit in Field.TrimRight(['=']) do
  begin
    Place := Pos(Digit, DIGITS);
    if Place = 0 then Break;
    Value := (Value shl 6) or LongWord(Place - 1);
    Inc(Bits, 6);
    if Bits < 8 then Continue;
    Dec(Bits, 8);
    Content := Content + AnsiChar((Value shr Bits) and $FF);
  end;
  if (Place = 0) or (Length(Field) mod 4 <> 0) then raise Exception.Create(Path + ': Base64 danificado');
  WriteFile(Path, Content);
  WriteLn('Gravado: ', Path);
end;

{ Books a document, saves the signed copy and returns its access key. }
function Book(const Expected, Operation: AnsiString; Send: TSend): AnsiString;
var
  Fields: TFields;
begin
  Fields := Deliver(Operation, Send);
  if (Fields <> nil) and (Fields[EEEEE] = Expected) then
  begin
    { The key becomes a file name: it must be "CFe" and 44 digits. }
    if (Length(Fields[KEY]) <> 47) or (Fields[KEY].TrimRight('0123456789'.ToCharArray) <> 'CFe') then
      raise Exception.Create('chave inválida: ' + Fields[KEY]);
    Save(Fields[KEY] + '.xml', Fields[DOCUMENT]);
    sync;
  end;
  if not DeleteFile(PENDING) then RaiseLastOSError;
  Result := Expect(Expected, Fields)[KEY];
end;

var
  Session: LongInt;
begin
  try
    if FileExists(PENDING) then Stop(DOCUMENT_PENDING, 'Nada foi enviado');
    Code := GetEnvironmentVariable('CODIGO_DE_ATIVACAO');
    if Code = '' then Stop(NOT_STARTED, 'Informe o código de ativação em CODIGO_DE_ATIVACAO');
    if not FileExists('venda.xml') or not FileExists('cancelamento.xml') then
      Stop(NOT_STARTED, 'Faltam venda.xml e cancelamento.xml, em UTF-8, na pasta atual');
    Sale := ReadFile('venda.xml');
    Cancellation := ReadFile('cancelamento.xml');
    if Pos('CHAVE', Cancellation) = 0 then Stop(NOT_STARTED, 'Falta a palavra CHAVE em cancelamento.xml');
    WriteLn('Biblioteca fiscora, driver ', getVersion);

    Session := NextSession;
    Expect('08000', Receive('ConsultarSAT', Session, ConsultarSAT(Session)));

    SaleKey := Book('06000', 'EnviarDadosVenda', @SendSale);

    Cancellation := StringReplace(Cancellation, 'CHAVE', SaleKey, []);
    Book('07000', 'CancelarUltimaVenda', @SendCancellation);

    Session := NextSession;
    Save('sat.log', Expect('15000', Receive('ExtrairLogs', Session, ExtrairLogs(Session, PAnsiChar(Code))))[LOG]);
  except
    on Problem: Exception do
    begin
      WriteLn(StdErr, Problem.Message);
      Stop(STOPPED, 'Não foi possível continuar');
    end;
  end;
end.
