// A day at the till in Java: query, sale, cancellation, the device's log. README.md says how to build and run it.
// Exit status: 0 all done, 1 stopped, 2 not started, 3 a document is pending.
import com.sun.jna.Function;
import com.sun.jna.Library;
import com.sun.jna.Native;
import com.sun.jna.Pointer;
import java.io.IOException;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.util.Base64;
import java.util.Map;
import java.util.concurrent.TimeUnit;
import java.util.function.IntFunction;

public class Venda {
    /** Results are Pointers: JNA would decode a String before we know whether it is UTF-8. */
    interface Fiscora extends Library {
        Pointer ConsultarSAT(int session);
        Pointer EnviarDadosVenda(int session, String code, String sale);
        Pointer CancelarUltimaVenda(int session, String code, String key, String cancellation);
        Pointer ConsultarNumeroSessao(int session, String code, int lost);
        Pointer ExtrairLogs(int session, String code);
        int CodigoErro();
        Pointer getVersion();
    }

    static {
        System.setProperty("jna.encoding", "UTF-8"); // by default, JNA encodes texts as the user's locale says
    }
    static final Fiscora LIBRARY = Native.load("libfiscora.so.1", Fiscora.class);
    static final Function SYNC = Function.getFunction("libc.so.6", "sync");
    static final PrintStream OUT = new PrintStream(System.out, true, StandardCharsets.UTF_8);

    static final int STOPPED = 1, NOT_STARTED = 2, DOCUMENT_PENDING = 3;
    static final int ATTEMPTS = 2, QUERIES = 5, PAUSE_S = 2;
    static final int EEEEE = 1, LOG = 5, DOCUMENT = 6, KEY = 8; // fields of an answer
    static final Path PENDING = Path.of("pendente.txt");
    static final int OK = 0, BAD_REQUEST = 8;
    static final Map<Integer, String> STATUS_TEXTS = Map.of(
            OK, "Resposta ilegível ou de outra sessão.",
            1, "Equipamento não encontrado ou resposta danificada. Verifique o cabo.",
            2, "A comunicação caiu. Verifique o cabo e a energia do equipamento.",
            4, "O equipamento respondeu a outro pedido. Desligue-o e ligue-o de novo.",
            BAD_REQUEST, "Dados inválidos ou grandes demais: nada foi enviado. Corrija-os.",
            32768, "O equipamento não respondeu a tempo. Ele pode estar ocupado.");

    /** Exits with exitStatus, or with DOCUMENT_PENDING if pendente.txt exists. */
    static <T> T stop(int exitStatus, String why) throws IOException {
        OUT.println(why);
        if (!Files.exists(PENDING)) System.exit(exitStatus);
        OUT.println("Antes de enviar outro documento, consulte a sessão e apague pendente.txt (README.md): "
                + new String(Files.readAllBytes(PENDING), StandardCharsets.UTF_8));
        System.exit(DOCUMENT_PENDING);
        return null;
    }

    /** Writes the whole file or leaves the old one as it was. */
    static void write(Path path, byte[] content) throws IOException {
        Path unfinished = Path.of("gravando.tmp");
        Files.write(unfinished, content);
        Files.move(unfinished, path, StandardCopyOption.ATOMIC_MOVE);
    }

    /** A number that no call has used, not even in an earlier run: a device books one document per number. */
    static int nextSession() throws IOException {
        Path path = Path.of("sessao.txt");
        long last;
        try {
            last = Long.parseLong(Files.readString(path).trim());
        } catch (IOException | NumberFormatException none) {
            last = System.currentTimeMillis() / 1000;
        }
        int session = (int) ((last + 1) % 1_000_000);
        write(path, String.format("%06d%n", session).getBytes());
        return session;
    }

    /** A copy, because the next call overwrites the memory. Most devices answer in UTF-8, some in Latin-1. */
    static String text(Pointer result) {
        String bytes = result.getString(0, "ISO-8859-1");
        String utf8 = new String(bytes.getBytes(StandardCharsets.ISO_8859_1), StandardCharsets.UTF_8);
        return utf8.contains("\uFFFD") ? bytes : utf8;
    }

    /**
     * Reports a call. Returns the answer's fields, missing ones empty, if it is complete, in time, and has this call's
     * number in field 0, or the number asked about, which some devices put there. Otherwise null.
     */
    static String[] receive(String operation, int session, Pointer result, int asked) {
        String answer = text(result);
        int status = LIBRARY.CodigoErro();
        OUT.printf("%s, sessão %06d: ", operation, session);
        if (status != OK || !answer.matches(String.format("(?s)(%06d|%06d)\\|[0-9]{5}\\|.*", session, asked))) {
            OUT.printf("status %d. %s%n", status, STATUS_TEXTS.getOrDefault(status, "Status desconhecido."));
            return null;
        }
        String[] fields = (answer + "|".repeat(KEY)).split("\\|", -1);
        // In the answer to a document, CCCC comes before the message.
        boolean document = fields[EEEEE].startsWith("06") || fields[EEEEE].startsWith("07");
        OUT.println(fields[EEEEE] + " " + fields[document ? 3 : 2]);
        return fields;
    }

    static String[] receive(String operation, int session, Pointer result) {
        return receive(operation, session, result, session);
    }

    /** Stops unless the answer has that code. */
    static String[] expect(String eeeee, String[] fields) throws IOException {
        boolean said = fields != null && fields[EEEEE].equals(eeeee);
        return said ? fields : stop(STOPPED, "Não foi feito: o programa termina aqui");
    }

    /** The device's answer in a session whose answer was lost; null if it does not know the session. */
    static String[] askAbout(int lost, String code) throws IOException, InterruptedException {
        OUT.printf("Não envie de novo: consultando a sessão %06d%n", lost);
        for (int query = 0; query < QUERIES; ++query) {
            int session = nextSession();
            Pointer result = LIBRARY.ConsultarNumeroSessao(session, code, lost);
            String[] fields = receive("ConsultarNumeroSessao", session, result, lost);
            if (fields != null && fields[EEEEE].equals("11003")) return null;
            if (fields != null && !fields[EEEEE].startsWith("11")) return fields; // 11...: query refused, perhaps busy
            TimeUnit.SECONDS.sleep(PAUSE_S);
        }
        return stop(DOCUMENT_PENDING, "O equipamento não disse o que houve");
    }

    /** Sends a document; sends it again only if the device says that it never got it. */
    static String[] deliver(String operation, String code, IntFunction<Pointer> send)
            throws IOException, InterruptedException {
        for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
            int session = nextSession();
            write(PENDING, String.format("%s %06d", operation, session).getBytes());
            SYNC.invokeVoid(new Object[0]); // pendente.txt must survive a power cut during the call
            String[] fields = receive(operation, session, send.apply(session));
            if (fields != null || LIBRARY.CodigoErro() == BAD_REQUEST) return fields;
            fields = askAbout(session, code);
            if (fields != null) return fields;
        }
        return null;
    }

    static void save(String path, String base64) throws IOException {
        byte[] content = Base64.getDecoder().decode(base64);
        if (content.length == 0) throw new IOException(path + ": documento vazio");
        write(Path.of(path), content);
        OUT.println("Gravado: " + path);
    }

    /** Books a document, saves the signed copy and returns its access key. */
    static String book(String eeeee, String operation, String code, IntFunction<Pointer> send)
            throws IOException, InterruptedException {
        String[] fields = deliver(operation, code, send);
        if (fields != null && fields[EEEEE].equals(eeeee)) {
            if (!fields[KEY].matches("CFe[0-9]{44}")) // it becomes a file name
                throw new IOException("chave inválida: " + fields[KEY]);
            save(fields[KEY] + ".xml", fields[DOCUMENT]);
            SYNC.invokeVoid(new Object[0]);
        }
        Files.delete(PENDING);
        return expect(eeeee, fields)[KEY];
    }

    static String read(String path) throws IOException {
        try {
            return Files.readString(Path.of(path));
        } catch (IOException problem) {
            return stop(NOT_STARTED, "Faltam venda.xml e cancelamento.xml, em UTF-8, na pasta atual");
        }
    }

    static void workADay() throws IOException, InterruptedException {
        if (Files.exists(PENDING)) stop(DOCUMENT_PENDING, "Nada foi enviado");
        String code = System.getenv("CODIGO_DE_ATIVACAO");
        if (code == null) stop(NOT_STARTED, "Informe o código de ativação em CODIGO_DE_ATIVACAO");
        String sale = read("venda.xml");
        String form = read("cancelamento.xml");
        if (!form.contains("CHAVE")) stop(NOT_STARTED, "Falta a palavra CHAVE em cancelamento.xml");
        OUT.println("Biblioteca fiscora, driver " + text(LIBRARY.getVersion()));

        int status = nextSession();
        expect("08000", receive("ConsultarSAT", status, LIBRARY.ConsultarSAT(status)));

        String key = book("06000", "EnviarDadosVenda", code,
                session -> LIBRARY.EnviarDadosVenda(session, code, sale));

        String cancellation = form.replace("CHAVE", key);
        book("07000", "CancelarUltimaVenda", code,
                session -> LIBRARY.CancelarUltimaVenda(session, code, key, cancellation));

        int log = nextSession();
        save("sat.log", expect("15000", receive("ExtrairLogs", log, LIBRARY.ExtrairLogs(log, code)))[LOG]);
    }

    public static void main(String[] arguments) throws IOException, InterruptedException {
        try {
            workADay();
        } catch (IOException | RuntimeException problem) {
            System.err.println(problem);
            stop(STOPPED, "Não foi possível continuar");
        }
    }
}
