// The SOAP 1.1 endpoint (rpc/encoded, docs/favorites.wsdl): updateFavorites,
// getFavorites and isFavorite for the signed-in user.
//
// An envelope that is rejected as a whole, names an unknown operation, or
// carries a SOAPAction of another operation is a Client fault (HTTP 500,
// as SOAP 1.1 has it) and changes nothing. A favorites code other than
// kSuccess is an ordinary response carrying that code in `return`.
#include <cctype>
#include <string>

#include "errors.h"
#include "hosterrors.h"
#include "items.h"
#include "qz/platform/soap.h"
#include "routes.h"
#include "soapfavorites.h"
#include "textinput.h"

namespace kiv::server {

extern const char* const kWsdlDocument;  // generated from docs/favorites.wsdl

namespace {

constexpr std::string_view kNamespace = "urn:kiv:favorites";
constexpr const char* kWsdlAddress = "http://127.0.0.1:8080/soap";

const char* const kEnvelopeOpen =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<SOAP-ENV:Envelope xmlns:SOAP-ENV=\"http://schemas.xmlsoap.org/soap/envelope/\""
    " xmlns:SOAP-ENC=\"http://schemas.xmlsoap.org/soap/encoding/\""
    " xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\""
    " xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" xmlns:fav=\"urn:kiv:favorites\""
    " SOAP-ENV:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><SOAP-ENV:Body>";
const char* const kEnvelopeClose = "</SOAP-ENV:Body></SOAP-ENV:Envelope>\n";

HttpResponse envelope(int status, const std::string& body) {
    HttpResponse r;
    r.status = status;
    r.contentType = "text/xml; charset=utf-8";
    r.body = kEnvelopeOpen + body + kEnvelopeClose;
    return r;
}

// code: "Client" (the request is at fault) or "Server".
HttpResponse fault(const char* code, const std::string& message) {
    return envelope(500, std::string("<SOAP-ENV:Fault><faultcode>SOAP-ENV:") + code + "</faultcode><faultstring>" +
                             host::xmlEscape(message) + "</faultstring></SOAP-ENV:Fault>");
}

std::string returnElement(favorites::ReturnCode rc) {
    return "<return xsi:type=\"xsd:int\">" + std::to_string(static_cast<int>(rc)) + "</return>";
}

HttpResponse response(const std::string& operation, const std::string& parts) {
    return envelope(200, "<fav:" + operation + "Response>" + parts + "</fav:" + operation + "Response>");
}

// A string parameter of the operation (searched by name); empty when absent.
String stringParameter(SoapParameter& op, const wchar_t* name) {
    SoapParameter* p = op.getChildParam(String(name), op.begin(), false, true);
    if (!p || p->getType() == SoapParameter::kNull) return String();
    p->convert(SoapParameter::kString);
    return p->getString();
}

HttpResponse updateFavorites(Call& call, SoapRequest& request) {
    std::vector<SoapParameter*> items = host::favoriteItemsOf(request);
    FavoritesManager& m = call.manager;
    favorites::ReturnCode rc = m.updateAll(items);
    // The tree was reloaded: the client's tree wins, so it is applied once more.
    if (rc == favorites::kErrorFavoritesOutOfSync) rc = m.updateAll(items);
    return response("updateFavorites", returnElement(rc));
}

HttpResponse getFavorites(Call& call, SoapRequest& request) {
    SoapParameter& op = request.getOperation();
    const String categoryText = stringParameter(op, L"categoryPath");
    const String filter = stringParameter(op, L"filter");
    const catalog::Path category = host::categoryArgument(categoryText.toUtf8(), "categoryPath");
    FavoritesItems items;
    const favorites::ReturnCode rc = call.manager.getFavorites(items, category.toString(), filter);
    std::string array;
    std::size_t count = 0;
    if (rc == favorites::kSuccess) {
        for (const Handle<FavoritesItem>& item : items) {
            const bool isCategory = host::isCategory(*item);
            array += "<item xsi:type=\"fav:FavoriteInfo\"><name xsi:type=\"xsd:string\">" +
                     host::xmlEscape(item->getName().toString()) + "</name><path xsi:type=\"xsd:string\">" +
                     host::xmlEscape(item->getPath().toString()) + "</path><type xsi:type=\"xsd:unsignedShort\">" +
                     (isCategory ? "1" : "0") + "</type>";
            if (!isCategory)
                array += "<catalogPath xsi:type=\"xsd:string\">" + host::xmlEscape(item->getCatalogPath().toString()) +
                         "</catalogPath>";
            array += "</item>";
            ++count;
        }
    }
    return response("getFavorites", returnElement(rc) +
                                        "<favoriteItems xsi:type=\"SOAP-ENC:Array\" SOAP-ENC:arrayType=\"fav:FavoriteInfo[" +
                                        std::to_string(count) + "]\">" + array + "</favoriteItems>");
}

HttpResponse isFavorite(Call& call, SoapRequest& request) {
    SoapParameter& op = request.getOperation();
    SoapParameter* paths = op.getChildParam(String(L"catalogPaths"), op.begin(), false, true);
    std::vector<catalog::Path> checked;
    if (paths) {
        for (auto it = paths->begin(); it != paths->end(); ++it) {
            SoapParameter* p = *it;
            p->convert(SoapParameter::kString);
            checked.push_back(host::catalogPathArgument(p->getString().toUtf8(), "a catalog path"));
        }
    }
    if (checked.size() > call.settings.maxStatusPaths)
        throw host::InputError("at most " + std::to_string(call.settings.maxStatusPaths) + " paths may be asked at once");
    if (!call.manager.isFavoritesInSync()) {
        FavoritesItems reload;
        call.manager.getFavorites(reload, String(), String());
    }
    std::string array;
    for (const catalog::Path& p : checked)
        array += std::string("<item xsi:type=\"xsd:boolean\">") + (call.manager.isFavorite(p) ? "true" : "false") +
                 "</item>";
    return response("isFavorite", returnElement(favorites::kSuccess) +
                                      "<results xsi:type=\"SOAP-ENC:Array\" SOAP-ENC:arrayType=\"xsd:boolean[" +
                                      std::to_string(checked.size()) + "]\">" + array + "</results>");
}

// The operation a SOAPAction header names: the text after '#' (or the whole
// text) without quotes; empty when the header is absent or empty.
std::string soapActionOperation(std::string_view header) {
    if (header.size() >= 2 && header.front() == '"' && header.back() == '"') header = header.substr(1, header.size() - 2);
    const std::size_t hash = header.rfind('#');
    if (hash != std::string_view::npos) {
        if (header.substr(0, hash) != kNamespace) return std::string(header);  // another service's action
        header = header.substr(hash + 1);
    }
    return std::string(header);
}

}  // namespace

HttpResponse postSoap(Call& call) {
    std::unique_ptr<SoapRequest> request;
    try {
        request = SoapRequest::parse(call.request.body);
    } catch (const SoapException& e) {
        return fault("Client", "the request envelope is rejected: " + e.getMessageText().toUtf8());
    }
    const std::string operation = request->getOperationName().toUtf8();
    if (request->getOperationNamespace().toUtf8() != kNamespace)
        return fault("Client", "the operation " + operation + " is not in the namespace urn:kiv:favorites");
    const std::string action = soapActionOperation(call.request.header("soapaction"));
    if (!action.empty() && action != operation)
        return fault("Client", "the SOAPAction header names " + action + ", the envelope " + operation);
    try {
        if (operation == "updateFavorites") return updateFavorites(call, *request);
        if (operation == "getFavorites") return getFavorites(call, *request);
        if (operation == "isFavorite") return isFavorite(call, *request);
    } catch (const SoapException& e) {
        return fault("Client", e.getMessageText().toUtf8());
    } catch (const host::UsageError& e) {
        return fault("Client", e.what());
    } catch (const host::InputError& e) {
        return fault("Client", e.what());
    } catch (const catalog::CatalogException& e) {
        return fault("Server", std::string("catalog error ") + catalog::returnCodeName(e.getCode()) + " at '" +
                                   e.getPath().toUtf8() + "'");
    }
    return fault("Client", "unknown operation " + operation + " (updateFavorites, getFavorites, isFavorite)");
}

HttpResponse wsdlDocument(std::string_view host) {
    std::string text = kWsdlDocument;
    // The address names this server as the client reached it.
    bool plainHost = !host.empty() && host.size() < 256;
    for (const char c : host)
        if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' || c == ':' || c == '[' || c == ']'))
            plainHost = false;
    if (plainHost) {
        const std::size_t at = text.find(kWsdlAddress);
        if (at != std::string::npos)
            text.replace(at, std::string_view(kWsdlAddress).size(), "http://" + std::string(host) + "/soap");
    }
    HttpResponse r;
    r.contentType = "text/xml; charset=utf-8";
    r.body = std::move(text);
    return r;
}

}  // namespace kiv::server
