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

const
  NOT_DONE = 1; NOT_BEGUN = 2; UNKNOWN = 3;
  SENDINGS = 2; QUESTIONS = 5; PAUSE = 2000; { ms }
  EEEEE = 1; LOG = 5; DOCUMENT = 6; KEY = 8; { fields of an answer }
  OK = 0; NO_ANSWER = 1; READ_ERROR = 2; REFUSED = 4; BAD_REQUEST = 8; TIMED_OUT = 32768;

type
  { Fields of an answer. Bytes as the device sent them, UTF-8 or, from some devices, Latin-1: with the unit cwstring
    SetCodePage(Text, 28591, False) and then SetCodePage(Text, CP_UTF8, True) convert a RawByteString. }
  TFields = TStringArray;
  TSend = function(Session: LongInt): PAnsiChar;

var
  Code, Sale, SaleKey, Cancellation: AnsiString;

procedure Stop(ExitStatus: Integer; const Why: AnsiString);
begin
  WriteLn(Why);
  Halt(ExitStatus);
end;

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
var
  Stream: TFileStream;
begin
  Stream := TFileStream.Create(Path, fmOpenRead);
  try
    SetLength(Result, Stream.Size);
    Stream.ReadBuffer(Pointer(Result)^, Length(Result));
  finally
    Stream.Free;
  end;
end;

procedure WriteFile(const Path, Content: AnsiString);
var
  Stream: TFileStream;
begin
  Stream := TFileStream.Create(Path, fmCreate);
  try
    Stream.WriteBuffer(Pointer(Content)^, Length(Content));
  finally
    Stream.Free;
  end;
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
  Stop(UNKNOWN, Format('Sessão %.6d pendente: pergunte por ela antes de enviar outro documento', [Lost]));
end;

{ Sends a document until the device has answered, a second time only where it knows nothing of the first. }
function Book(const Operation: AnsiString; Send: TSend): TFields;
var
  Sending: Integer;
  Session: LongInt;
begin
  for Sending := 1 to SENDINGS do
  begin
    Session := NextSession;
    Result := Receive(Operation, Session, Send(Session));
    if (Result <> nil) or (CodigoErro = BAD_REQUEST) then Exit;
    Result := AskAbout(Session);
    if Result <> nil then Exit;
  end;
end;

function SendSale(Session: LongInt): PAnsiChar;
begin
  Result := EnviarDadosVenda(Session, PAnsiChar(Code), PAnsiChar(Sale));
end;

function SendCancellation(Session: LongInt): PAnsiChar;
begin
  Result := CancelarUltimaVenda(Session, PAnsiChar(Code), PAnsiChar(SaleKey), PAnsiChar(Cancellation));
end;

{ The unit base64 of the larger package fp-units-fcl has it too. }
function DecodeBase64(const Text: AnsiString): AnsiString;
const
  DIGITS = 'ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/';
var
  Digit: AnsiChar;
  Value: LongWord = 0;
  Bits: Integer = 0;
begin
  Result := '';
  for Digit in Text do
  begin
    if Digit = '=' then Break;
    Value := (Value shl 6) or LongWord(Pos(Digit, DIGITS) - 1);
    Inc(Bits, 6);
    if Bits < 8 then Continue;
    Dec(Bits, 8);
    Result := Result + AnsiChar((Value shr Bits) and $FF);
  end;
end;

procedure Save(const Path, Field: AnsiString);
begin
  WriteFile(Path, DecodeBase64(Field));
  WriteLn('Gravado: ', Path);
end;

var
  Form: AnsiString;
  Fields: TFields;
  Session: LongInt;
begin
  Code := GetEnvironmentVariable('CODIGO_DE_ATIVACAO');
  if Code = '' then Stop(NOT_BEGUN, 'Informe o código de ativação em CODIGO_DE_ATIVACAO');
  if not FileExists('venda.xml') or not FileExists('cancelamento.xml') then
    Stop(NOT_BEGUN, 'Faltam venda.xml e cancelamento.xml na pasta atual');
  Sale := ReadFile('venda.xml');
  Form := ReadFile('cancelamento.xml');
  WriteLn('Biblioteca fiscora, driver ', getVersion);

  Session := NextSession;
  Expect('08000', Receive('ConsultarSAT', Session, ConsultarSAT(Session)));

  Fields := Expect('06000', Book('EnviarDadosVenda', @SendSale));
  Save(Fields[KEY] + '.xml', Fields[DOCUMENT]);

  SaleKey := Fields[KEY];
  Cancellation := StringReplace(Form, 'CHAVE', SaleKey, []);
  Fields := Expect('07000', Book('CancelarUltimaVenda', @SendCancellation));
  Save(Fields[KEY] + '.xml', Fields[DOCUMENT]);

  Session := NextSession;
  Fields := Expect('15000', Receive('ExtrairLogs', Session, ExtrairLogs(Session, PAnsiChar(Code))));
  Save('sat.log', Fields[LOG]);
end.
