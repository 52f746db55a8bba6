{ A day at the till in Free Pascal: status, sale, cancellation, the device's log. README.md says how to build and run it.
  Exit status: 0 all done, 1 not done, 2 nothing begun, 3 nobody knows what became of a document. }
program Venda;

{$mode objfpc}{$H+}
{$linklib c} { begins the program by the C library, which libfiscora needs }

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
  NOT_DONE = 1; NOT_BEGUN = 2; UNKNOWN = 3;
  SENDINGS = 2; QUESTIONS = 5; PAUSE = 2000; { ms }
  EEEEE = 1; LOG = 5; DOCUMENT = 6; KEY = 8; { fields of an answer }
  OK = 0; NO_ANSWER = 1; READ_ERROR = 2; REFUSED = 4; BAD_REQUEST = 8; TIMED_OUT = 32768;
  PENDING = 'pendente.txt';

type
  { Fields of an answer. Bytes as the device sent them, UTF-8 or, from some devices, Latin-1: with the unit cwstring
    SetCodePage(Text, 28591, False) and then SetCodePage(Text, CP_UTF8, True) convert a RawByteString. }
  TFields = TStringArray;
  TSend = function(Session: LongInt): PAnsiChar;

var
  Code, Sale, SaleKey, Cancellation: AnsiString;

function Explain(Status: LongInt): AnsiString;
begin
  case Status of
    OK: Explain := 'resposta ilegível ou de outra sessão';
    NO_ANSWER: Explain := 'sem equipamento ou resposta danificada: verifique o cabo';
    READ_ERROR: Explain := 'a linha caiu: verifique o cabo e a energia do equipamento';
    REFUSED: Explain := 'resposta de outro comando: desligue e ligue o equipamento';
    BAD_REQUEST: Explain := 'pedido grande demais, nada foi enviado: corrija os dados';
    TIMED_OUT: Explain := 'sem resposta a tempo: o equipamento pode estar ocupado';
  else
    Explain := 'status desconhecido';
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

{ Writes a file whole or not at all. }
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

{ Ends the day; with UNKNOWN as long as pendente.txt stands. }
procedure Stop(ExitStatus: Integer; const Why: AnsiString);
begin
  WriteLn(Why);
  if not FileExists(PENDING) then Halt(ExitStatus);
  WriteLn('Antes de enviar outro documento, pergunte pela sessão e apague pendente.txt (README.md): ', ReadFile(PENDING));
  Halt(UNKNOWN);
end;

{ A number that no call had before, in no earlier run either: a device books one document a number. }
function NextSession: LongInt;
var
  Last: Int64;
begin
  if not FileExists('sessao.txt') or not TryStrToInt64(Trim(ReadFile('sessao.txt')), Last) then
    Last := Trunc((Now - UnixDateDelta) * SecsPerDay);
  Result := (Last + 1) mod 1000000;
  WriteFile('sessao.txt', Format('%.6d'#10, [Result]));
end;

{ Copies the answer, since the next call overwrites it, and reports it. The fields, those that it has not empty; nil
  where there is none in time, whole, and under the number of this very call or the one that it asks about, which some
  devices put there. }
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
    WriteLn(Format('status %d, %s', [Status, Explain(Status)]));
    Exit(nil);
  end;
  if Result[EEEEE].StartsWith('06') or Result[EEEEE].StartsWith('07') then { a document's CCCC stands between }
    WriteLn(Result[EEEEE], ' ', Result[3])
  else
    WriteLn(Result[EEEEE], ' ', Result[2]);
end;

{ The fields of an answer that says so; there is no other way on. }
function Expect(const Code: AnsiString; const Fields: TFields): TFields;
begin
  if (Fields = nil) or (Fields[EEEEE] <> Code) then Stop(NOT_DONE, 'Não foi feito: o dia termina aqui');
  Result := Fields;
end;

{ What the device answered in a session whose answer is missing; nil where it knows nothing of it. }
function AskAbout(Lost: LongInt): TFields;
var
  Question: Integer;
  Session: LongInt;
begin
  WriteLn(Format('Não envie de novo: perguntando pela sessão %.6d', [Lost]));
  for Question := 1 to QUESTIONS do
  begin
    Session := NextSession;
    Result := Receive('ConsultarNumeroSessao', Session, ConsultarNumeroSessao(Session, PAnsiChar(Code), Lost), Lost);
    if (Result <> nil) and (Result[EEEEE] = '11003') then Exit(nil);
    if (Result <> nil) and not Result[EEEEE].StartsWith('11') then Exit; { else it is refused, by a busy device say }
    Sleep(PAUSE);
  end;
  Stop(UNKNOWN, 'O equipamento não disse o que houve');
end;

function SendSale(Session: LongInt): PAnsiChar;
begin
  Result := EnviarDadosVenda(Session, PAnsiChar(Code), PAnsiChar(Sale));
end;

function SendCancellation(Session: LongInt): PAnsiChar;
begin
  Result := CancelarUltimaVenda(Session, PAnsiChar(Code), PAnsiChar(SaleKey), PAnsiChar(Cancellation));
end;

{ Sends a document until the device has answered, a second time only where it knows nothing of the first. }
function Deliver(const Operation: AnsiString; Send: TSend): TFields;
var
  Sending: Integer;
  Session: LongInt;
begin
  for Sending := 1 to SENDINGS do
  begin
    Session := NextSession;
    WriteFile(PENDING, Format('%s %.6d', [Operation, Session]));
    sync; { a power cut from here on leaves pendente.txt }
    Result := Receive(Operation, Session, Send(Session));
    if (Result <> nil) or (CodigoErro = BAD_REQUEST) then Exit;
    Result := AskAbout(Session);
    if Result <> nil then Exit;
  end;
end;

{ Decodes a field from Base64 to a file. The unit base64 of the larger package fp-units-fcl decodes too. }
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

{ Books a document and saves it as the device has signed it; its key. }
function Book(const Expected, Operation: AnsiString; Send: TSend): AnsiString;
var
  Fields: TFields;
begin
  Fields := Deliver(Operation, Send);
  if (Fields <> nil) and (Fields[EEEEE] = Expected) then
  begin
    { The key becomes a file's name: "CFe" and 44 digits. }
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
    if FileExists(PENDING) then Stop(UNKNOWN, 'Nada foi enviado');
    Code := GetEnvironmentVariable('CODIGO_DE_ATIVACAO');
    if Code = '' then Stop(NOT_BEGUN, 'Informe o código de ativação em CODIGO_DE_ATIVACAO');
    if not FileExists('venda.xml') or not FileExists('cancelamento.xml') then
      Stop(NOT_BEGUN, 'Faltam venda.xml e cancelamento.xml, em UTF-8, na pasta atual');
    Sale := ReadFile('venda.xml');
    Cancellation := ReadFile('cancelamento.xml');
    if Pos('CHAVE', Cancellation) = 0 then Stop(NOT_BEGUN, 'Falta a palavra CHAVE em cancelamento.xml');
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
      Stop(NOT_DONE, 'Não foi possível continuar');
    end;
  end;
end.
