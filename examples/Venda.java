// A day at the till in Java: status, sale, cancellation, the device's log. README.md says how to build and run it.
// Exit status: 0 all done, 1 not done, 2 nothing begun, 3 nobody knows what became of a document.
import com.sun.jna.Library;
import com.sun.jna.Native;
import com.sun.jna.Pointer;
import java.io.IOException;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Base64;
import java.util.Map;
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

    // Without the option, texts would go in the encoding of the user's locale.
    static final Fiscora LIBRARY =
            Native.load("libfiscora.so.1", Fiscora.class, Map.of(Library.OPTION_STRING_ENCODING, "UTF-8"));
    static final PrintStream OUT = new PrintStream(System.out, true, StandardCharsets.UTF_8);

    static final int NOT_DONE = 1, NOT_BEGUN = 2, UNKNOWN = 3;
    static final int SENDINGS = 2, QUESTIONS = 5, PAUSE = 2; // s
    static final int EEEEE = 1, LOG = 5, DOCUMENT = 6, KEY = 8; // fields of an answer
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

    static <T> T stop(int exitStatus, String why) {
        OUT.println(why);
        System.exit(exitStatus);
        return null;
    }

    /** A number that no call had before, in no earlier run either: a device books one document a number. */
    static int nextSession() {
        Path path = Path.of("sessao.txt");
        long last;
        try {
            last = Long.parseLong(Files.readString(path).trim());
        } catch (IOException | NumberFormatException none) {
            last = System.currentTimeMillis() / 1000;
        }
        int session = (int) ((last + 1) % 1_000_000);
        try {
            Files.writeString(path, String.format("%06d%n", session));
        } catch (IOException problem) {
            stop(NOT_DONE, "Não foi possível gravar sessao.txt");
        }
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
    static String[] expect(String eeeee, String[] fields) {
        boolean said = fields != null && fields[EEEEE].equals(eeeee);
        return said ? fields : stop(NOT_DONE, "Não foi feito: o dia termina aqui");
    }

    /** What the device answered in a session whose answer is missing; null where it knows nothing of it. */
    static String[] askAbout(int lost, String code) throws InterruptedException {
        OUT.printf("Não envie de novo: perguntando pela sessão %06d%n", lost);
        for (int question = 0; question < QUESTIONS; ++question) {
            int session = nextSession();
            Pointer result = LIBRARY.ConsultarNumeroSessao(session, code, lost);
            String[] fields = receive("ConsultarNumeroSessao", session, result, lost);
            if (fields != null && fields[EEEEE].equals("11003")) return null;
            if (fields != null && !fields[EEEEE].startsWith("11")) return fields; // else it is refused: busy, say
            TimeUnit.SECONDS.sleep(PAUSE);
        }
        return stop(UNKNOWN,
                String.format("Sessão %06d pendente: pergunte por ela antes de enviar outro documento", lost));
    }

    /** Sends a document until the device has answered, a second time only where it knows nothing of the first. */
    static String[] book(String operation, String code, IntFunction<Pointer> send)
            throws InterruptedException {
        for (int sending = 0; sending < SENDINGS; ++sending) {
            int session = nextSession();
            String[] fields = receive(operation, session, send.apply(session));
            if (fields != null || LIBRARY.CodigoErro() == BAD_REQUEST) return fields;
            fields = askAbout(session, code);
            if (fields != null) return fields;
        }
        return null;
    }

    static void save(String path, String base64) throws IOException {
        Files.write(Path.of(path), Base64.getDecoder().decode(base64));
        OUT.println("Gravado: " + path);
    }

    public static void main(String[] arguments) throws IOException, InterruptedException {
        String code = System.getenv("CODIGO_DE_ATIVACAO");
        if (code == null) stop(NOT_BEGUN, "Informe o código de ativação em CODIGO_DE_ATIVACAO");
        if (!Files.isReadable(Path.of("venda.xml")) || !Files.isReadable(Path.of("cancelamento.xml")))
            stop(NOT_BEGUN, "Faltam venda.xml e cancelamento.xml na pasta atual");
        String sale = Files.readString(Path.of("venda.xml"));
        String form = Files.readString(Path.of("cancelamento.xml"));
        OUT.println("Biblioteca fiscora, driver " + text(LIBRARY.getVersion()));

        int status = nextSession();
        expect("08000", receive("ConsultarSAT", status, LIBRARY.ConsultarSAT(status)));

        String[] sold = expect("06000",
                book("EnviarDadosVenda", code, session -> LIBRARY.EnviarDadosVenda(session, code, sale)));
        save(sold[KEY] + ".xml", sold[DOCUMENT]);

        String cancellation = form.replace("CHAVE", sold[KEY]);
        String[] cancelled = expect("07000", book("CancelarUltimaVenda", code,
                session -> LIBRARY.CancelarUltimaVenda(session, code, sold[KEY], cancellation)));
        save(cancelled[KEY] + ".xml", cancelled[DOCUMENT]);

        int log = nextSession();
        save("sat.log", expect("15000", receive("ExtrairLogs", log, LIBRARY.ExtrairLogs(log, code)))[LOG]);
    }
}
