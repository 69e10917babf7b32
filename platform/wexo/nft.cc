#include "nft.h"

#include <nftables/libnftables.h>

#include <memory>

#include "netns_switch.h"
#include "nft_direct.h"
#include "nft_read.h"

namespace wexo::nft {
namespace {

struct CtxFree {
	void operator()(struct nft_ctx *ctx) const { nft_ctx_free(ctx); }
};
using Ctx = std::unique_ptr<struct nft_ctx, CtxFree>;

// Runs `command` (JSON text) in namespace `nsfd`; what nftables prints into *output.
wexo_status_t execute(int nsfd, const std::string &command, std::string *output)
{
	NetnsSwitch in(nsfd);
	if (!in.ok())
		return WEXO_STATUS_DENIED;
	// JSON in and out: the commands are never nftables' own language, which a value
	// could break out of.
	Ctx nft(nft_ctx_new(NFT_CTX_DEFAULT));
	if (nft == nullptr)
		return WEXO_STATUS_NOMEM;
	nft_ctx_output_set_flags(nft.get(), NFT_CTX_OUTPUT_JSON);
	nft_ctx_buffer_output(nft.get());
	nft_ctx_buffer_error(nft.get());
	const int rc = nft_run_cmd_from_buffer(nft.get(), command.c_str());
	if (rc == 0 && output != nullptr)
		*output = nft_ctx_get_output_buffer(nft.get());
	return rc == 0 ? WEXO_STATUS_OK : WEXO_STATUS_FAILED;
}

}  // namespace

wexo_status_t run(int nsfd, const nlohmann::json &batch)
{
	{
		NetnsSwitch in(nsfd);
		if (!in.ok())
			return WEXO_STATUS_DENIED;
		switch (run_direct(batch)) {
		case Direct::Done: return WEXO_STATUS_OK;
		case Direct::Refused: return WEXO_STATUS_FAILED;
		case Direct::Unsupported: break;  // libnftables builds it, at the cost of reading the ruleset first
		}
	}
	return execute(nsfd, batch.dump(), nullptr);
}

wexo_status_t list(int nsfd, const nlohmann::json &command, nlohmann::json *listing)
{
	std::string text;
	const wexo_status_t st = execute(nsfd, command.dump(), &text);
	if (st != WEXO_STATUS_OK)
		return WEXO_STATUS_NOTFOUND;
	*listing = nlohmann::json::parse(text, nullptr, false);
	return listing->is_discarded() ? WEXO_STATUS_FAILED : WEXO_STATUS_OK;
}

wexo_status_t list_table(int nsfd, const std::string &name, nlohmann::json *listing)
{
	return list(nsfd, {{"nftables", {{{"list", {{"table", {{"family", "netdev"}, {"name", name}}}}}}}}}, listing);
}

wexo_status_t list_link(int nsfd, const std::string &table, const std::vector<std::string> &chains,
    const std::vector<std::pair<std::string, int>> &sets, nlohmann::json *listing)
{
	{
		NetnsSwitch in(nsfd);
		if (!in.ok())
			return WEXO_STATUS_DENIED;
		if (read_link(table, chains, sets, listing))
			return WEXO_STATUS_OK;
	}
	return list_table(nsfd, table, listing);
}

}  // namespace wexo::nft
