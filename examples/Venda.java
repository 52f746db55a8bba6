// A day at the till in Java: status, sale, cancellation, the device's log. README.md says how to build and run it.
// Exit status: 0 all done, 1 not done, 2 nothing begun, 3 nobody knows what became of a document.
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
import java.util.concurrent.TimeUnit;
import java.util.function.IntFunction;

public class Venda {
    /** Results as Pointer: as String, JNA would decode them before it is known whether they are UTF-8. */
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
        System.setProperty("jna.encoding", "UTF-8"); // texts would go in the encoding of the user's locale
    }
    static final Fiscora LIBRARY = Native.load("libfiscora.so.1", Fiscora.class);
    static final Function SYNC = Function.getFunction("libc.so.6", "sync");
    static final PrintStream OUT = new PrintStream(System.out, true, StandardCharsets.UTF_8);

    static final int NOT_DONE = 1, NOT_BEGUN = 2, UNKNOWN = 3;
    static final int SENDINGS = 2, QUESTIONS = 5, PAUSE = 2; // s
    static final int EEEEE = 1, LOG = 5, DOCUMENT = 6, KEY = 8; // fields of an answer
    static final Path PENDING = Path.of("pendente.txt");
    static final int OK = 0, NO_ANSWER = 1, READ_ERROR = 2, REFUSED = 4, BAD_REQUEST = 8, TIMEOUT = 32768;

    static String explain(int status) {
        switch (status) {
            case OK: return "resposta ilegível ou de outra sessão";
            case NO_ANSWER: return "sem equipamento ou resposta danificada: verifique o cabo";
            case READ_ERROR: return "a linha caiu: verifique o cabo e a energia do equipamento";
            case REFUSED: return "resposta de outro comando: desligue e ligue o equipamento";
            case BAD_REQUEST: return "pedido grande demais, nada foi enviado: corrija os dados";
            case TIMEOUT: return "sem resposta a tempo: o equipamento pode estar ocupado";
            default: return "status desconhecido";
        }
    }

    /** Ends the day; with UNKNOWN as long as pendente.txt stands. */
    static <T> T stop(int exitStatus, String why) throws IOException {
        OUT.println(why);
        if (!Files.exists(PENDING)) System.exit(exitStatus);
        OUT.println("Antes de enviar outro documento, pergunte pela sessão e apague pendente.txt (README.md): "
                + new String(Files.readAllBytes(PENDING), StandardCharsets.UTF_8));
        System.exit(UNKNOWN);
        return null;
    }

    /** Writes a file whole or not at all. */
    static void write(Path path, byte[] content) throws IOException {
        Path unfinished = Path.of("gravando.tmp");
        Files.write(unfinished, content);
        Files.move(unfinished, path, StandardCopyOption.ATOMIC_MOVE);
    }

    /** A number that no call had before, in no earlier run either: a device books one document a number. */
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

    /** A copy: the next call overwrites the memory. Devices answer in UTF-8, some in Latin-1. */
    static String text(Pointer result) {
        String bytes = result.getString(0, "ISO-8859-1");
        String utf8 = new String(bytes.getBytes(StandardCharsets.ISO_8859_1), StandardCharsets.UTF_8);
        return utf8.contains("\uFFFD") ? bytes : utf8;
    }

    /**
     * Reports a call. The fields of its answer, those that it has not empty; null where there is none in time, whole,
     * and under the number of this very call or the one that it asks about, which some devices put there.
     */
    static String[] receive(String operation, int session, Pointer result, int asked) {
        String answer = text(result);
        int status = LIBRARY.CodigoErro();
        OUT.printf("%s, sessão %06d: ", operation, session);
        if (status != OK || !answer.matches(String.format("(?s)(%06d|%06d)\\|[0-9]{5}\\|.*", session, asked))) {
            OUT.printf("status %d, %s%n", status, explain(status));
            return null;
        }
        String[] fields = (answer + "|".repeat(KEY)).split("\\|", -1);
        boolean document = fields[EEEEE].startsWith("06") || fields[EEEEE].startsWith("07");
        OUT.println(fields[EEEEE] + " " + fields[document ? 3 : 2]); // a document's CCCC stands between
        return fields;
    }

    static String[] receive(String operation, int session, Pointer result) {
        return receive(operation, session, result, session);
    }

    /** The fields of an answer that says so; there is no other way on. */
    static String[] expect(String eeeee, String[] fields) throws IOException {
        boolean said = fields != null && fields[EEEEE].equals(eeeee);
        return said ? fields : stop(NOT_DONE, "Não foi feito: o dia termina aqui");
    }

    /** What the device answered in a session whose answer is missing; null where it knows nothing of it. */
    static String[] askAbout(int lost, String code) throws IOException, InterruptedException {
        OUT.printf("Não envie de novo: perguntando pela sessão %06d%n", lost);
        for (int question = 0; question < QUESTIONS; ++question) {
            int session = nextSession();
            Pointer result = LIBRARY.ConsultarNumeroSessao(session, code, lost);
            String[] fields = receive("ConsultarNumeroSessao", session, result, lost);
            if (fields != null && fields[EEEEE].equals("11003")) return null;
            if (fields != null && !fields[EEEEE].startsWith("11")) return fields; // else it is refused: busy, say
            TimeUnit.SECONDS.sleep(PAUSE);
        }
        return stop(UNKNOWN, "O equipamento não disse o que houve");
    }

    /** Sends a document until the device has answered, a second time only where it knows nothing of the first. */
    static String[] deliver(String operation, String code, IntFunction<Pointer> send)
            throws IOException, InterruptedException {
        for (int sending = 0; sending < SENDINGS; ++sending) {
            int session = nextSession();
            write(PENDING, String.format("%s %06d", operation, session).getBytes());
            SYNC.invokeVoid(new Object[0]); // a power cut from here on leaves pendente.txt
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

    /** Books a document and saves it as the device has signed it; its key. */
    static String book(String eeeee, String operation, String code, IntFunction<Pointer> send)
            throws IOException, InterruptedException {
        String[] fields = deliver(operation, code, send);
        if (fields != null && fields[EEEEE].equals(eeeee)) {
            if (!fields[KEY].matches("CFe[0-9]{44}")) // it becomes a file's name
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
            return stop(NOT_BEGUN, "Faltam venda.xml e cancelamento.xml, em UTF-8, na pasta atual");
        }
    }

    static void workADay() throws IOException, InterruptedException {
        if (Files.exists(PENDING)) stop(UNKNOWN, "Nada foi enviado");
        String code = System.getenv("CODIGO_DE_ATIVACAO");
        if (code == null) stop(NOT_BEGUN, "Informe o código de ativação em CODIGO_DE_ATIVACAO");
        String sale = read("venda.xml");
        String form = read("cancelamento.xml");
        if (!form.contains("CHAVE")) stop(NOT_BEGUN, "Falta a palavra CHAVE em cancelamento.xml");
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
            stop(NOT_DONE, "Não foi possível continuar");
        }
    }
}
