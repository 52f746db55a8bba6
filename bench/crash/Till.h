#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Random.h"
#include "crash/Shop.h"
#include "crash/told.h"
#include "service/ServiceClient.h"

namespace crash {

/// A till that forgets nothing of what it was told, and is restless: it sells, cancels, withdraws, repeats
/// itself, sends twice at once, and asks about old documents.
class Till {
  public:
    /// How it hands in its documents.
    enum class Way {
        Keys,          ///< /v1, each under a key
        FormWithKeys,  ///< the form API, each under a key
        Form,          ///< the form API without keys: what gets no answer is not sent again
    };

    /// `counter` outlives the till. `number`: from 1, of this till among those of its shop.
    Till(Counter& counter, int number, Way way, unsigned seed);

    /// Works until the shop has closed and it knows what became of its documents, as far as it can.
    void work();

    const Records& records() const { return m_records; }

  private:
    void act();
    void serveCustomer();
    void settle(HandedIn& document);
    void askAgain(HandedIn& document);
    void meddle();

    HandedIn& newSale();
    HandedIn& newCancellation(const std::string& saleKey);
    std::string newKey();
    std::vector<HandedIn*> openDocuments();
    std::optional<std::string> lastBookedSale() const;

    void handIn(HandedIn& document, int waitSeconds);
    void handInTwice(HandedIn& document);
    void withdraw(HandedIn& document);
    void ask(HandedIn& document);
    void download(HandedIn& document);
    void reuseKey(const HandedIn& document);

    std::optional<HttpAnswer> send(const HandedIn& document, int waitSeconds);
    std::optional<Told> handedIn(const HandedIn& document, const std::optional<HttpAnswer>& answer);
    std::optional<Told> toldIn(const HandedIn& document, const std::optional<HttpAnswer>& answer);
    std::optional<Told> toldByForm(const HandedIn& document, const std::string& text);
    void note(HandedIn& document, const std::optional<Told>& told);
    bool hasKeys() const { return m_way != Way::Form; }

    Counter& m_counter;
    ServiceClient m_client;
    const int m_number;
    const Way m_way;
    Random m_random;
    Records m_records;
    int m_documents = 0;
};

}  // namespace crash
