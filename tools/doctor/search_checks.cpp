// How the library comes to the node's name.

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <system_error>

#include "doctor/Examination.h"

namespace doctor {
namespace {

namespace fs = std::filesystem;

constexpr char USB_DEVICES[] = "/sys/bus/usb/devices";
constexpr char BY_ID[] = "/dev/serial/by-id";
/// What the library's search looks for in the entries' names.
constexpr char FRAGMENT[] = "-mfc+_with_musb";

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

/// The first word of a file; empty where it can't be read.
std::string wordIn(const fs::path& file) {
    std::string word;
    std::ifstream(file) >> word;
    return word;
}

/// Names in a folder, sorted.
std::vector<std::string> namesIn(const char* folder, std::error_code& failure) {
    std::vector<std::string> names;
    for (fs::directory_iterator entry(folder, failure), end; !failure && entry != end;
         entry.increment(failure))
        names.push_back(entry->path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

/// Where a link of by-id leads to; empty for anything that is no link.
std::string targetOf(const std::string& name) {
    std::error_code none;
    const fs::path target = fs::read_symlink(fs::path(BY_ID) / name, none);
    return none ? "" : (BY_ID / target).lexically_normal().string();
}

std::string usbDevice(const std::string& product, const std::string& port) {
    return serial::SERIAL_VENDOR_ID + ":" + product + " na porta USB " + port;
}

/// Why there is no entry to find. `names` are those that by-id holds, `failure` why it could not be read.
Finding missingEntry(Examination& examination, const std::vector<std::string>& names,
                     const std::error_code& failure) {
    if (failure && failure != std::errc::no_such_file_or_directory)
        return error(std::string(BY_ID) + " não pode ser lida: " + reason(failure.value()),
                     "Rode na conta do aplicativo e confira as permissões da pasta.");
    if (!examination.usbDevicePresent) return skipped("sem o aparelho no USB não há entrada");
    const std::unique_ptr<char, decltype(&std::free)> terminal(examination.channel.findUsbDeviceByVendorId(),
                                                               &std::free);
    if (!terminal)
        return error("o aparelho está no USB, mas o núcleo não lhe deu um terminal",
                     "Carregue o driver com \"sudo modprobe cdc_acm\" e religue o cabo USB.");
    if (failure)
        return error(std::string(BY_ID) + " não existe, embora o aparelho seja " + terminal.get(),
                     "Inicie o udev com \"sudo systemctl start systemd-udevd\" e religue o cabo USB; em um "
                     "contêiner, monte /dev/serial.");
    return error(
        std::string("nenhuma entrada com ") + FRAGMENT +
            " no nome (há: " + (names.empty() ? "nada" : listed(names)) + ")",
        "O aparelho ligado não é o equipamento fiscal, ou é de um modelo que a biblioteca não conhece.");
}

}  // namespace

Finding checkSimulation(Examination& /*examination*/) {
    return {Verdict::Ok, "fiscora sim está ativo: o que segue julga a linha simulada, não o equipamento",
            "Para examinar o equipamento, rode \"fiscora doctor\" fora do fiscora sim."};
}

Finding checkUsbDevice(Examination& examination) {
    std::vector<std::string> found;
    bool expected = false;
    std::error_code failure;
    for (const auto& port : namesIn(USB_DEVICES, failure)) {
        const fs::path device = fs::path(USB_DEVICES) / port;
        if (wordIn(device / "idVendor") != serial::SERIAL_VENDOR_ID) continue;
        const std::string product = wordIn(device / "idProduct");
        expected = expected || product == serial::SERIAL_PRODUCT_ID;
        found.push_back(usbDevice(product, port));
    }
    examination.usbDevicePresent = !found.empty();
    if (expected) return ok(listed(found));
    if (!found.empty())
        return warning(listed(found) + ", e o esperado é o produto " + serial::SERIAL_PRODUCT_ID,
                       "Confira se é o equipamento fiscal; a biblioteca não olha o produto.");
    const std::string absent = "nenhum aparelho USB do fabricante " + serial::SERIAL_VENDOR_ID;
    if (exists(examination.node))
        return warning(absent + ", mas a biblioteca acha " + examination.node,
                       "Confira se " + examination.node + " é o equipamento fiscal.");
    if (failure)
        return error(std::string(USB_DEVICES) + " não pode ser lida: " + reason(failure.value()),
                     "Em um contêiner ou máquina virtual, entregue-lhe o aparelho USB.");
    return error(absent, "Ligue o equipamento, confira o cabo e a fonte, espere-o iniciar e rode de novo.");
}

Finding checkEntry(Examination& examination) {
    std::error_code failure;
    const auto names = namesIn(BY_ID, failure);
    std::vector<std::string> matching;
    std::copy_if(names.begin(), names.end(), std::back_inserter(matching),
                 [](const std::string& name) { return name.find(FRAGMENT) != std::string::npos; });
    if (matching.empty()) return missingEntry(examination, names, failure);

    // The order is that of ls in this locale, so the library's own listing says which entry wins.
    const auto winner = std::find_if(matching.begin(), matching.end(), [&](const std::string& name) {
        return examination.listing.find(" " + name + " -> ") != std::string::npos;
    });
    if (winner == matching.end())
        return error("há " + listed(matching) + ", mas a busca da biblioteca não lista um link",
                     "Veja o passo dos comandos, e religue o cabo USB.");
    examination.target = targetOf(*winner);
    const std::string entry = *winner + " -> " + examination.target;
    if (examination.node.empty())
        return error(entry + ", e a biblioteca só abre um terminal ttyACM",
                     "Esse não é o equipamento fiscal: desligue o outro aparelho e religue o equipamento.");
    if (!exists(examination.target))
        return error(entry + ", que não existe",
                     "O link sobrou: desligue e religue o cabo USB do equipamento.");
    if (matching.size() == 1) return ok(entry);
    matching.erase(winner);
    return warning("vale a última de " + std::to_string(matching.size() + 1) + " entradas, " + entry +
                       " (há também " + listed(matching) + ")",
                   "Deixe ligado um só equipamento fiscal.");
}

Finding checkNodeNumber(Examination& examination) {
    const std::string& node = examination.node;
    if (examination.target == node) return ok(node);
    return error(
        "o equipamento é " + examination.target + ", mas a biblioteca lê um só dígito e abriria " + node +
            (exists(node) ? ", que é outro aparelho" : ", que não existe"),
        "Desligue outros aparelhos seriais USB e religue o equipamento, até ele ter um número de 0 a 9.");
}

}  // namespace doctor
