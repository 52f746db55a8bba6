#include <cstdint>

#include "fiscal/UCManipulaDadosSat.h"
#include "fiscora.h"
#include "version.h"

manipulaDados::ManipulaDadosSat objManipulaDadosSat;

namespace {

/// The low 16 bits as an unsigned number. The parameters are `int`, because compilers disagree on who clears
/// the upper half of a 16-bit parameter's register, caller or callee.
int low16(int value) { return static_cast<std::uint16_t>(value); }

}  // namespace

extern "C" {

char* AtivarSAT(int numeroSessao, int subComando, const char* codigoDeAtivacao, const char* cnpj, int cUF) {
    return objManipulaDadosSat.AtivarSAT(numeroSessao, low16(subComando), codigoDeAtivacao, cnpj, low16(cUF));
}

char* ComunicarCertificadoICPBRASIL(int numeroSessao, const char* codigoDeAtivacao, const char* certificado) {
    return objManipulaDadosSat.ComunicarCertificadoICPBRASIL(numeroSessao, codigoDeAtivacao, certificado);
}

char* EnviarDadosVenda(int numeroSessao, const char* codigoDeAtivacao, const char* dadosVenda) {
    return objManipulaDadosSat.EnviarDadosVenda(numeroSessao, codigoDeAtivacao, dadosVenda);
}

char* CancelarUltimaVenda(int numeroSessao, const char* codigoDeAtivacao, const char* chave,
                          const char* dadosCancelamento) {
    return objManipulaDadosSat.CancelarUltimaVenda(numeroSessao, codigoDeAtivacao, chave, dadosCancelamento);
}

char* ConsultarSAT(int numeroSessao) { return objManipulaDadosSat.ConsultarSAT(numeroSessao); }

char* TesteFimAFim(int numeroSessao, const char* codigoDeAtivacao, const char* dadosVenda) {
    return objManipulaDadosSat.TesteFimAFim(numeroSessao, codigoDeAtivacao, dadosVenda);
}

char* ConsultarStatusOperacional(int numeroSessao, const char* codigoDeAtivacao) {
    return objManipulaDadosSat.ConsultarStatusOperacional(numeroSessao, codigoDeAtivacao);
}

char* ConsultarNumeroSessao(int numeroSessao, const char* codigoDeAtivacao, int cNumeroDeSessao) {
    return objManipulaDadosSat.ConsultarNumeroSessao(numeroSessao, codigoDeAtivacao, cNumeroDeSessao);
}

char* ConfigurarInterfaceDeRede(int numeroSessao, const char* codigoDeAtivacao,
                                const char* dadosConfiguracao) {
    return objManipulaDadosSat.ConfigurarInterfaceDeRede(numeroSessao, codigoDeAtivacao, dadosConfiguracao);
}

char* AssociarAssinatura(int numeroSessao, const char* codigoDeAtivacao, const char* cnpjValue,
                         const char* assinaturaCNPJs) {
    return objManipulaDadosSat.AssociarAssinatura(numeroSessao, codigoDeAtivacao, cnpjValue, assinaturaCNPJs);
}

char* AtualizarSoftwareSAT(int numeroSessao, const char* codigoDeAtivacao) {
    return objManipulaDadosSat.AtualizarSoftwareSAT(numeroSessao, codigoDeAtivacao);
}

char* ExtrairLogs(int numeroSessao, const char* codigoDeAtivacao) {
    return objManipulaDadosSat.ExtrairLogs(numeroSessao, codigoDeAtivacao);
}

char* BloquearSAT(int numeroSessao, const char* codigoDeAtivacao) {
    return objManipulaDadosSat.BloquearSAT(numeroSessao, codigoDeAtivacao);
}

char* DesbloquearSAT(int numeroSessao, const char* codigoDeAtivacao) {
    return objManipulaDadosSat.DesbloquearSAT(numeroSessao, codigoDeAtivacao);
}

char* TrocarCodigoDeAtivacao(int numeroSessao, const char* codigoDeAtivacao, int opcao,
                             const char* novoCodigo, const char* confNovoCodigo) {
    return objManipulaDadosSat.TrocarCodigoDeAtivacao(numeroSessao, codigoDeAtivacao, low16(opcao),
                                                      novoCodigo, confNovoCodigo);
}

char* Base64ToAscii(void) { return objManipulaDadosSat.Base64ToAscii(); }
int CodigoErro(void) { return objManipulaDadosSat.CodigoErro(); }
void CloseSerial(void) { objManipulaDadosSat.closePortSerial(); }
const char* getVersion(void) { return DRIVER_VERSION; }

}  // extern "C"
